// IPv6 helpers: walking extension headers and classifying addresses.
#include "linux/kernel.h"
#include "net/ipv6.h"

#define IPV6_ADDR_MC_SCOPE(a) ((a)->s6_addr[1] & 0x0f)

int ipv6_skip_exthdr(const struct sk_buff *skb, int start, u8 *nexthdrp)
{
	u8 nexthdr = *nexthdrp;

	while (ipv6_ext_hdr(nexthdr)) {
		struct ipv6_opt_hdr _hdr, *hp;
		int hdrlen;

		if (nexthdr == NEXTHDR_NONE)
			return -1;
		hp = (struct ipv6_opt_hdr *)skb_header_pointer(skb, start, sizeof(_hdr), &_hdr);
		if (hp == NULL)
			return -1;
		if (nexthdr == NEXTHDR_FRAGMENT) {
			__be16 _frag_off, *fp;

			fp = (__be16 *)skb_header_pointer(skb, start + offsetof(struct frag_hdr, frag_off),
							  sizeof(_frag_off), &_frag_off);
			if (fp == NULL)
				return -1;
			// A later fragment: the upper-layer header is elsewhere.
			if (ntohs(*fp) & ~0x7)
				break;
			hdrlen = 8;
		} else if (nexthdr == NEXTHDR_AUTH) {
			hdrlen = (hp->hdrlen + 2) << 2;
		} else {
			hdrlen = ipv6_optlen(hp);
		}
		nexthdr = hp->nexthdr;
		start += hdrlen;
	}
	*nexthdrp = nexthdr;
	return start;
}

static inline unsigned ipv6_addr_scope2type(unsigned scope)
{
	switch (scope) {
	case IPV6_ADDR_SCOPE_NODELOCAL:
		return IPV6_ADDR_SCOPE_TYPE(IPV6_ADDR_SCOPE_NODELOCAL) | IPV6_ADDR_LOOPBACK;
	case IPV6_ADDR_SCOPE_LINKLOCAL:
		return IPV6_ADDR_SCOPE_TYPE(IPV6_ADDR_SCOPE_LINKLOCAL) | IPV6_ADDR_LINKLOCAL;
	case IPV6_ADDR_SCOPE_SITELOCAL:
		return IPV6_ADDR_SCOPE_TYPE(IPV6_ADDR_SCOPE_SITELOCAL) | IPV6_ADDR_SITELOCAL;
	}
	return IPV6_ADDR_SCOPE_TYPE(scope);
}

int __ipv6_addr_type(const struct in6_addr *addr)
{
	__be32 st = addr->s6_addr32[0];

	// Everything outside 000/3 and 111/3 is global unicast.
	if ((st & htonl(0xE0000000)) != htonl(0x00000000) && (st & htonl(0xE0000000)) != htonl(0xE0000000))
		return IPV6_ADDR_UNICAST | IPV6_ADDR_SCOPE_TYPE(IPV6_ADDR_SCOPE_GLOBAL);
	if ((st & htonl(0xFF000000)) == htonl(0xFF000000))
		return IPV6_ADDR_MULTICAST | ipv6_addr_scope2type(IPV6_ADDR_MC_SCOPE(addr));
	if ((st & htonl(0xFFC00000)) == htonl(0xFE800000))
		return IPV6_ADDR_LINKLOCAL | IPV6_ADDR_UNICAST | IPV6_ADDR_SCOPE_TYPE(IPV6_ADDR_SCOPE_LINKLOCAL);
	if ((st & htonl(0xFFC00000)) == htonl(0xFEC00000))
		return IPV6_ADDR_SITELOCAL | IPV6_ADDR_UNICAST | IPV6_ADDR_SCOPE_TYPE(IPV6_ADDR_SCOPE_SITELOCAL);
	if ((st & htonl(0xFE000000)) == htonl(0xFC000000))
		return IPV6_ADDR_UNICAST | IPV6_ADDR_SCOPE_TYPE(IPV6_ADDR_SCOPE_GLOBAL);
	if ((addr->s6_addr32[0] | addr->s6_addr32[1]) == 0) {
		if (addr->s6_addr32[2] == 0) {
			if (addr->s6_addr32[3] == 0)
				return IPV6_ADDR_ANY;
			if (addr->s6_addr32[3] == htonl(0x00000001))
				return IPV6_ADDR_LOOPBACK | IPV6_ADDR_UNICAST |
				       IPV6_ADDR_SCOPE_TYPE(IPV6_ADDR_SCOPE_LINKLOCAL);
			return IPV6_ADDR_COMPATv4 | IPV6_ADDR_UNICAST | IPV6_ADDR_SCOPE_TYPE(IPV6_ADDR_SCOPE_GLOBAL);
		}
		if (addr->s6_addr32[2] == htonl(0x0000ffff))
			return IPV6_ADDR_MAPPED | IPV6_ADDR_SCOPE_TYPE(IPV6_ADDR_SCOPE_GLOBAL);
	}
	return IPV6_ADDR_RESERVED | IPV6_ADDR_SCOPE_TYPE(IPV6_ADDR_SCOPE_GLOBAL);
}
