// DNS and HTTP exceptions of the IPv4 flow hooks.
#include "hooks/flow_exceptions.h"

#include "linux/in.h"
#include "linux/ip.h"
#include "linux/tcp.h"
#include "linux/udp.h"

#define DNS_PORT 53
#define HTTP_PORT 80

int flow_make_linear(struct sk_buff *skb, unsigned int n)
{
	unsigned int off = skb_network_offset(skb);

	if (skb_headlen(skb) >= off + n)
		return 1;
	if (skb->len < off + n)
		return 0;
	return __pskb_pull_tail(skb, off + n - skb_headlen(skb)) != NULL;
}

// The IP header itself, options included, in the linear data.
static int flow_ip_header(struct sk_buff *skb, unsigned int *ihl)
{
	if (!flow_make_linear(skb, sizeof(struct iphdr)))
		return 0;
	*ihl = ip_hdr(skb)->ihl * 4;
	return *ihl >= sizeof(struct iphdr) && flow_make_linear(skb, *ihl);
}

int flow_is_dns4(struct sk_buff *skb)
{
	const struct udphdr *uh;
	unsigned int ihl, ulen;

	if (!flow_ip_header(skb, &ihl) || ip_hdr(skb)->protocol != IPPROTO_UDP)
		return 0;
	// 8 bytes from the IP header; then the UDP header itself, which lies
	// behind the IP header, so that its fields are read inside the data.
	if (!flow_make_linear(skb, sizeof(struct udphdr)) ||
	    !flow_make_linear(skb, ihl + sizeof(struct udphdr)))
		return 0;
	uh = (const struct udphdr *)(skb_network_header(skb) + ihl);
	ulen = ntohs(uh->len);
	if (ulen < sizeof(struct udphdr) || ulen > skb->len)
		return 0;
	// The length is made linear from the IP header, as the 8 bytes were.
	if (!flow_make_linear(skb, ulen))
		return 0;
	uh = (const struct udphdr *)(skb_network_header(skb) + ihl);
	if (ntohs(uh->dest) != DNS_PORT && ntohs(uh->source) != DNS_PORT)
		return 0;
	return skb_tail_pointer(skb) - ((const unsigned char *)uh + sizeof(*uh)) >= DNS_MIN_MESSAGE;
}

int flow_is_http4(struct sk_buff *skb)
{
	const struct tcphdr *th;
	unsigned int ihl, doff;

	if (!flow_ip_header(skb, &ihl) || ip_hdr(skb)->protocol != IPPROTO_TCP)
		return 0;
	// 20 bytes from the IP header, then the fixed TCP header behind it.
	if (!flow_make_linear(skb, sizeof(struct tcphdr)) ||
	    !flow_make_linear(skb, ihl + sizeof(struct tcphdr)))
		return 0;
	th = (const struct tcphdr *)(skb_network_header(skb) + ihl);
	doff = th->doff;
	if (doff < 5)
		return 0;
	// Measured from the IP header, not from the TCP header.
	if (!flow_make_linear(skb, doff * 4))
		return 0;
	th = (const struct tcphdr *)(skb_network_header(skb) + ihl);
	return ntohs(th->source) == HTTP_PORT || ntohs(th->dest) == HTTP_PORT;
}
