#pragma once
// IPv6 helpers: extension-header walking and address classification.
#include "linux/in6.h"
#include "linux/ipv6.h"
#include "linux/skbuff.h"

#define NEXTHDR_HOP 0
#define NEXTHDR_TCP 6
#define NEXTHDR_UDP 17
#define NEXTHDR_IPV6 41
#define NEXTHDR_ROUTING 43
#define NEXTHDR_FRAGMENT 44
#define NEXTHDR_ESP 50
#define NEXTHDR_AUTH 51
#define NEXTHDR_ICMP 58
#define NEXTHDR_NONE 59
#define NEXTHDR_DEST 60
#define NEXTHDR_MOBILITY 135

#define NEXTHDR_MAX 255

#define IPV6_ADDR_ANY 0x0000U
#define IPV6_ADDR_UNICAST 0x0001U
#define IPV6_ADDR_MULTICAST 0x0002U
#define IPV6_ADDR_LOOPBACK 0x0010U
#define IPV6_ADDR_LINKLOCAL 0x0020U
#define IPV6_ADDR_SITELOCAL 0x0040U
#define IPV6_ADDR_COMPATv4 0x0080U
#define IPV6_ADDR_SCOPE_MASK 0x00f0U
#define IPV6_ADDR_MAPPED 0x1000U
#define IPV6_ADDR_RESERVED 0x2000U

#define IPV6_ADDR_SCOPE_NODELOCAL 0x01
#define IPV6_ADDR_SCOPE_LINKLOCAL 0x02
#define IPV6_ADDR_SCOPE_SITELOCAL 0x05
#define IPV6_ADDR_SCOPE_ORGLOCAL 0x08
#define IPV6_ADDR_SCOPE_GLOBAL 0x0e

#define IPV6_ADDR_SCOPE_TYPE(scope) ((scope) << 16)

// Type flags and, in bits 16 and up, the scope of an address.
int __ipv6_addr_type(const struct in6_addr *addr);

static inline int ipv6_addr_type(const struct in6_addr *addr)
{
	return __ipv6_addr_type(addr) & 0xffff;
}

static inline int ipv6_ext_hdr(u8 nexthdr)
{
	return (nexthdr == NEXTHDR_HOP) || (nexthdr == NEXTHDR_ROUTING) ||
	       (nexthdr == NEXTHDR_FRAGMENT) || (nexthdr == NEXTHDR_AUTH) ||
	       (nexthdr == NEXTHDR_NONE) || (nexthdr == NEXTHDR_DEST);
}

struct frag_hdr {
	u8 nexthdr;
	u8 reserved;
	__be16 frag_off;
	__be32 identification;
};

#define IP6_MF 0x0001
#define IP6_OFFSET 0xfff8

#define ipv6_optlen(p) (((p)->hdrlen + 1) << 3)
#define ipv6_authlen(p) (((p)->hdrlen + 2) << 2)

// Skips the extension headers from offset start (whose type is
// *nexthdrp); returns the offset of the upper-layer header with its type
// in *nexthdrp, or -1 when the chain is truncated or ends in NEXTHDR_NONE.
int ipv6_skip_exthdr(const struct sk_buff *skb, int start, u8 *nexthdrp);

static inline int ipv6_addr_equal(const struct in6_addr *a1, const struct in6_addr *a2)
{
	return ((a1->s6_addr32[0] ^ a2->s6_addr32[0]) | (a1->s6_addr32[1] ^ a2->s6_addr32[1]) |
		(a1->s6_addr32[2] ^ a2->s6_addr32[2]) | (a1->s6_addr32[3] ^ a2->s6_addr32[3])) == 0;
}

static inline void ipv6_addr_copy(struct in6_addr *a1, const struct in6_addr *a2)
{
	memcpy(a1, a2, sizeof(struct in6_addr));
}
