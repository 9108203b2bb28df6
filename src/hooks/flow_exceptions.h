#pragma once
// The traffic both flow hooks (non-HTTP for WP, HTTPS for PC) leave alone
// over IPv4: DNS, so that names can still be resolved and learnt, and HTTP,
// which the HTTP forward hooks judge.
#include "linux/skbuff.h"

// A DNS message needs its 12-byte header and at least one more byte.
#define DNS_MIN_MESSAGE 13

// Makes the first n bytes of the packet, counted from its network header,
// linear. 1 when they are; 0 when the packet is shorter or the pull fails.
// A pull may move the head: header pointers must be taken again after it.
int flow_make_linear(struct sk_buff *skb, unsigned int n);

// UDP from or to port 53 with at least DNS_MIN_MESSAGE bytes after the UDP
// header in the linear data. A header that fails a check is not DNS.
int flow_is_dns4(struct sk_buff *skb);
// TCP from or to port 80. A header that fails a check is not HTTP.
int flow_is_http4(struct sk_buff *skb);
