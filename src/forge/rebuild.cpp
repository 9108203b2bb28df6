// Rebuilding a received TCP segment into one of the filter's own. The
// received packet is only read, through bounded reads; the work is done
// on its copy, which is linear.
#include "forge/rebuild.h"

#include "forge/route.h"
#include "linux/in.h"
#include "linux/ip.h"
#include "linux/ipv6.h"
#include "linux/kernel.h"
#include "net/checksum.h"
#include "net/ipv6.h"

#define IPV6_HDRLEN ((int)sizeof(struct ipv6hdr))
#define TCP_HDRLEN ((int)sizeof(struct tcphdr))
#define REBUILD6_LEN (IPV6_HDRLEN + TCP_HDRLEN)

void calc_seq(struct tcphdr *th, u32 len)
{
	__be32 seq = th->seq;

	th->seq = th->ack_seq;
	th->ack_seq = htonl(ntohl(seq) + len);
}

static void set_flags(struct tcphdr *th, unsigned int flags)
{
	tcp_flag_byte(th) = 0;
	switch (flags) {
	case REBUILD_ACK:
		th->ack = 1;
		break;
	case REBUILD_FIN_ACK:
		th->fin = 1;
		th->ack = 1;
		break;
	case REBUILD_RST:
		th->rst = 1;
		th->ack_seq = 0;
		break;
	}
}

static void swap_ports(struct tcphdr *th)
{
	__be16 port = th->source;

	th->source = th->dest;
	th->dest = port;
}

// Drops the copy's reference on its connection: the forged packet is untracked.
static void drop_conntrack(struct sk_buff *skb)
{
	nf_conntrack_put(skb->nfct);
	skb->nfct = NULL;
}

static struct sk_buff *segment_copy(struct sk_buff *skb, int thoff, struct tcphdr **th)
{
	struct sk_buff *nskb = skb_copy(skb, GFP_ATOMIC);

	if (!nskb)
		return NULL;
	skb_reset_network_header(nskb);
	skb_set_transport_header(nskb, thoff);
	*th = (struct tcphdr *)(nskb->data + thoff);
	return nskb;
}

struct sk_buff *rebuild_packet(struct sk_buff *skb, u32 len, unsigned int flags, int reverse)
{
	struct iphdr _iph, *iph;
	struct tcphdr _th, *th;
	struct sk_buff *nskb;
	unsigned int ihl, tcplen;
	__be32 addr;

	iph = (struct iphdr *)skb_header_pointer(skb, 0, sizeof(_iph), &_iph);
	if (!iph || (ntohs(iph->frag_off) & IP_OFFSET) || iph->ihl < 5 ||
	    skb->len < iph->ihl * 4 + sizeof(struct tcphdr)) {
		printk(KERN_DEBUG "[%s]: Invalid IP header\n", __func__);
		return NULL;
	}
	ihl = iph->ihl * 4;
	tcplen = skb->len - ihl;

	th = (struct tcphdr *)skb_header_pointer(skb, ihl, sizeof(_th), &_th);
	if (!th || th->rst)
		return NULL;
	if (csum_tcpudp_magic(iph->saddr, iph->daddr, tcplen, IPPROTO_TCP,
			      skb_checksum(skb, ihl, tcplen, 0)))
		return NULL;

	nskb = segment_copy(skb, ihl, &th);
	if (!nskb)
		return NULL;
	iph = (struct iphdr *)nskb->data;

	if (reverse) {
		drop_conntrack(nskb);
		addr = iph->saddr;
		iph->saddr = iph->daddr;
		iph->daddr = addr;
		swap_ports(th);
	}
	th->doff = TCP_HDRLEN / 4;
	skb_trim(nskb, ihl + TCP_HDRLEN);
	iph->tot_len = htons(nskb->len);
	if (reverse)
		calc_seq(th, len);

	set_flags(th, flags);
	th->urg_ptr = 0;
	th->check = 0;
	th->check = csum_tcpudp_magic(iph->saddr, iph->daddr, TCP_HDRLEN, IPPROTO_TCP,
				      csum_partial(th, TCP_HDRLEN, 0));

	iph->ttl = 255;
	iph->frag_off = htons(IP_DF);
	iph->id = 0;
	iph->check = 0;
	iph->check = ip_fast_csum(iph, iph->ihl);

	if (route_packet(nskb)) {
		kfree_skb(nskb);
		return NULL;
	}
	return nskb;
}

struct sk_buff *rebuild_packet6(struct sk_buff *skb, s32 len, unsigned int flags, int *tcphoff,
				int reverse)
{
	struct ipv6hdr _ip6h, *ip6h;
	struct tcphdr _th, *th;
	struct sk_buff *nskb;
	struct in6_addr addr;
	int thoff = *tcphoff;
	unsigned int seglen, sumlen;

	if (skb->len < REBUILD6_LEN) {
		printk(KERN_DEBUG "[%s]: Invalid IP header\n", __func__);
		return NULL;
	}
	ip6h = (struct ipv6hdr *)skb_header_pointer(skb, 0, sizeof(_ip6h), &_ip6h);
	// No other check of the headers: the offset is the caller's. Where it
	// points outside the packet the header cannot be read, and nothing is
	// forged.
	th = thoff < 0 ? NULL : (struct tcphdr *)skb_header_pointer(skb, thoff, sizeof(_th), &_th);
	if (!th || th->rst)
		return NULL;
	// The segment is taken as everything behind the fixed header, as if
	// the TCP header followed it directly. Behind extension headers those
	// bytes would run past the packet: the sum reads only up to its end,
	// the pseudo-header still counts them all.
	seglen = skb->len - IPV6_HDRLEN;
	sumlen = thoff > IPV6_HDRLEN ? skb->len - thoff : seglen;
	if (csum_ipv6_magic(&ip6h->saddr, &ip6h->daddr, seglen, IPPROTO_TCP,
			    skb_checksum(skb, thoff, sumlen, 0))) {
		printk(KERN_DEBUG "[%s]: tcp_v6_check error\n", __func__);
		return NULL;
	}

	nskb = segment_copy(skb, thoff, &th);
	if (!nskb)
		return NULL;
	ip6h = (struct ipv6hdr *)nskb->data;

	if (reverse) {
		drop_conntrack(nskb);
		addr = ip6h->saddr;
		ip6h->saddr = ip6h->daddr;
		ip6h->daddr = addr;
		swap_ports(th);
	}
	th->doff = TCP_HDRLEN / 4;
	// Behind extension headers the TCP header no longer fits in 60 bytes;
	// the segment comes out malformed, the buffer still holds its bytes.
	skb_trim(nskb, REBUILD6_LEN);
	ip6h->payload_len = htons(TCP_HDRLEN);
	if (reverse)
		calc_seq(th, (u32)len);

	set_flags(th, flags);
	th->urg_ptr = 0;
	th->check = 0;
	th->check = csum_ipv6_magic(&ip6h->saddr, &ip6h->daddr, TCP_HDRLEN, IPPROTO_TCP,
				    csum_partial(th, TCP_HDRLEN, 0));

	ip6h->hop_limit = 64;
	ip6h->nexthdr = IPPROTO_TCP;

	if (route_packet6(nskb, th)) {
		kfree_skb(nskb);
		return NULL;
	}
	return nskb;
}
