// Bounded reads of received segments and the roomy copy of one.
#include "forge/segment.h"

#include "linux/ipv6.h"
#include "linux/tcp.h"
#include "net/dst.h"
#include "net/ipv6.h"

s32 tcp_payload_len(const struct sk_buff *skb, int thoff)
{
	struct tcphdr _th;
	const struct tcphdr *th;

	if (thoff < 0)
		return 0;
	th = (const struct tcphdr *)skb_header_pointer(skb, thoff, sizeof(_th), &_th);
	if (!th)
		return 0;
	return (s32)skb->len - (thoff + th->doff * 4);
}

int ipv6_tcp_offset(const struct sk_buff *skb)
{
	struct ipv6hdr _ip6h;
	const struct ipv6hdr *ip6h;
	u8 nexthdr;

	ip6h = (const struct ipv6hdr *)skb_header_pointer(skb, 0, sizeof(_ip6h), &_ip6h);
	if (!ip6h)
		return -1;
	nexthdr = ip6h->nexthdr;
	return ipv6_skip_exthdr(skb, sizeof(struct ipv6hdr), &nexthdr);
}
