#pragma once
// The block page: an HTTP "302 Found" redirect forged from the client's
// request segment, sent in the server's place.
#include "linux/skbuff.h"

// The response is formatted into a buffer of this size; at most one byte
// less is sent.
#define BLKPAGE_LEN 1024

// Sends the redirect to `url` for the client's segment (left as it is).
// 0 sent, -1 failed.
int send_blkpage(const char *url, struct sk_buff *skb);
int send_blkpage6(const char *url, struct sk_buff *skb);

// Turns skb, a copy of the client's segment, into the redirect carrying
// page (NUL-terminated). 0 routed, -1 no route (the packet is complete
// and keeps the route it had), -EINVAL when the segment cannot carry it
// (the packet is left as it was).
int redirect_packet(struct sk_buff *skb, const char *page);
int redirect_packet6(struct sk_buff *skb, const char *page);
