#pragma once
// Routes for forged packets: the output route of the packet's own
// destination replaces whatever route the copy inherited.
#include "linux/skbuff.h"
#include "linux/tcp.h"

// 0 routed (protocol and device set from the route), -1 no route.
int route_packet(struct sk_buff *skb);
int route_packet6(struct sk_buff *skb, struct tcphdr *th);
