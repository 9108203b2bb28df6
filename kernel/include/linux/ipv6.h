#pragma once
// The IPv6 fixed header and its extension headers.
#include "linux/in6.h"
#include "linux/skbuff.h"
#include "linux/types.h"

struct ipv6hdr {
	u8 priority:4,
	     version:4;
	u8 flow_lbl[3];
	__be16 payload_len;
	u8 nexthdr;
	u8 hop_limit;
	struct in6_addr saddr;
	struct in6_addr daddr;
};

// Generic extension header: next header and length in 8-octet units,
// not counting the first 8 octets.
struct ipv6_opt_hdr {
	u8 nexthdr;
	u8 hdrlen;
} __attribute__((packed));

struct ipv6_rt_hdr {
	u8 nexthdr;
	u8 hdrlen;
	u8 type;
	u8 segments_left;
};

static inline struct ipv6hdr *ipv6_hdr(const struct sk_buff *skb)
{
	return (struct ipv6hdr *)skb_network_header(skb);
}
