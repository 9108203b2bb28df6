#pragma once
// Hands a routed packet straight to the link layer, past the remaining
// netfilter hooks.
#include "linux/skbuff.h"

// Consumes skb. The link layer's result, or -EINVAL when the route has
// neither a header cache nor a neighbour.
int output_packet(struct sk_buff *skb);
