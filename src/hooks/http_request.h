#pragma once
// The rating request of an HTTP connection: the part both forward hooks
// fill alike. The family, the addresses and the ports are the caller's.
#include "core/rating.h"
#include "linux/netdevice.h"
#include "linux/skbuff.h"
#include "track/tcp_table.h"

// Which service rates a connection crossing in -> out: WP when its switch
// is on and neither side is "br1", PC otherwise.
u32 http_rating_service(int mode, const struct net_device *in, const struct net_device *out);

// A zeroed request (kmalloc, GFP_ATOMIC) with kind, service, the decoded
// request and, for PC, the client's MAC. NULL when memory runs out. The
// caller sends it and frees it.
struct rating_request *http_rating_request(int mode, const struct net_device *in,
					   const struct net_device *out, const struct sk_buff *skb,
					   const struct http_info *info);

// Keeps a copy of the request segment in the record (dropping one left
// from before), sends the request, moves the record to STATE_RATING and
// frees the request.
void http_hold_and_rate(struct tcp_tracking *rec, struct sk_buff *skb, struct rating_request *req);
