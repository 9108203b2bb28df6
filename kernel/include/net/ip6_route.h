#pragma once
// IPv6 routes.
#include "linux/in6.h"
#include "net/dst.h"
#include "net/flow.h"

struct net;
struct sock;

struct rt6_info {
	struct dst_entry dst;
	struct in6_addr rt6i_gateway;
	u32 rt6i_flags;
	u32 rt6i_metric;
	struct in6_addr rt6i_dst;
	int rt6i_dst_plen;
};

// Always returns a counted reference; when nothing matches, the entry's
// error is set (-ENETUNREACH) and it leads nowhere.
struct dst_entry *ip6_route_output(struct net *net, struct sock *sk, struct flowi *fl);
