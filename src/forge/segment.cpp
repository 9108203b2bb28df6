// Bounded reads of received segments and the roomy copy of one.
#include "forge/segment.h"

#include "linux/ipv6.h"
#include "linux/tcp.h"
#include "net/dst.h"
#include "net/ipv6.h"

u32 tcp_payload_len(const struct sk_buff *skb, int thoff)
{
	struct tcphdr _th;
	const struct tcphdr *th;
	unsigned int hlen;

	if (thoff < 0)
		return 0;
	th = (const struct tcphdr *)skb_header_pointer(skb, thoff, sizeof(_th), &_th);
	if (!th)
		return 0;
	hlen = thoff + th->doff * 4;
	// Options the header claims but the packet does not hold count as none.
	if (hlen > skb->len)
		return 0;
	return skb->len - hlen;
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

static unsigned char *moved(const struct sk_buff *from, unsigned char *mark, struct sk_buff *to)
{
	return mark ? to->data + (mark - from->data) : NULL;
}

struct sk_buff *skb_copy_room(const struct sk_buff *skb, unsigned int tailroom)
{
	int headroom = skb_headroom(skb);
	struct sk_buff *n;

	n = alloc_skb(headroom + skb->len + tailroom, GFP_ATOMIC);
	if (!n)
		return NULL;
	skb_reserve(n, headroom);
	skb_put(n, skb->len);
	if (skb_copy_bits(skb, -headroom, n->head, headroom + skb->len)) {
		kfree_skb(n);
		return NULL;
	}

	n->dev = skb->dev;
	n->network_header = moved(skb, skb->network_header, n);
	n->transport_header = moved(skb, skb->transport_header, n);
	n->mac_header = moved(skb, skb->mac_header, n);
	n->_skb_refdst = skb->_skb_refdst;
	if (!(n->_skb_refdst & SKB_DST_NOREF))
		dst_clone(skb_dst(n));
	memcpy(n->cb, skb->cb, sizeof(skb->cb));
	n->csum = skb->csum;
	n->local_df = skb->local_df;
	n->pkt_type = skb->pkt_type;
	n->ip_summed = skb->ip_summed;
	n->priority = skb->priority;
	n->protocol = skb->protocol;
	n->mark = skb->mark;
	n->skb_iif = skb->skb_iif;
	n->mac_len = skb->mac_len;
	n->nfct = skb->nfct;
	nf_conntrack_get(skb->nfct);
	n->nfctinfo = skb->nfctinfo;
	return n;
}
