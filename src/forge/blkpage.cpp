// The "302 Found" redirect to the block page.
#include "forge/blkpage.h"

#include "forge/output.h"
#include "forge/rebuild.h"
#include "forge/route.h"
#include "forge/segment.h"
#include "linux/errno.h"
#include "linux/in.h"
#include "linux/ip.h"
#include "linux/ipv6.h"
#include "linux/kernel.h"
#include "linux/tcp.h"
#include "net/checksum.h"
#include "net/ipv6.h"

#define IPV6_HDRLEN ((int)sizeof(struct ipv6hdr))
#define TCP_HDRLEN ((int)sizeof(struct tcphdr))

static const char blkpage_fmt[] = "HTTP/1.1 302 Found\r\nLocation: %s\r\nContent-Length: 0\r\n"
				  "Content-Type: text/html\r\n\r\n";

// The redirect's window field holds 0x7FFF in the router's (little-endian)
// order: the bytes 0xFF 0x7F on the wire.
static void set_redirect_window(struct tcphdr *th)
{
	u8 *w = (u8 *)&th->window;

	w[0] = 0xFF;
	w[1] = 0x7F;
}

static void set_redirect_flags(struct tcphdr *th)
{
	u8 *flags = &tcp_flag_byte(th);

	*flags = (*flags & ~(TCPHDR_FIN | TCPHDR_SYN | TCPHDR_RST | TCPHDR_URG)) | TCPHDR_PSH |
		 TCPHDR_ACK;
}

static void swap_ports(struct tcphdr *th)
{
	__be16 port = th->source;

	th->source = th->dest;
	th->dest = port;
}

// The page's length, cut to the room the copy has behind its first hdrlen
// bytes. A received frame's buffer holds a full-sized frame, so the cut
// never happens there; a smaller buffer gets the start of the page rather
// than a write past its end.
static unsigned int page_len(const struct sk_buff *skb, unsigned int hdrlen, const char *page)
{
	unsigned int n = strlen(page);
	unsigned int size = skb->end - skb->data;
	unsigned int room = size > hdrlen ? size - hdrlen : 0;

	return n < room ? n : room;
}

static void put_page(struct sk_buff *skb, unsigned int hdrlen, const char *page, unsigned int n)
{
	unsigned char *p;

	skb_trim(skb, hdrlen);
	p = skb_put(skb, n);
	memset(p, 0, n);
	memcpy(p, page, n);
}

int redirect_packet(struct sk_buff *skb, const char *page)
{
	struct iphdr *iph = (struct iphdr *)skb->data;
	struct tcphdr *th;
	unsigned int ihl, n, tcplen;
	u32 datalen;
	__be32 addr;

	// The copy is linear. A header too short to hold the TCP header is
	// not rewritten: the copy is left as it is, and goes out as it is.
	ihl = iph->ihl * 4;
	if (skb->len < sizeof(struct iphdr) || ihl < sizeof(struct iphdr) || skb->len < ihl + TCP_HDRLEN)
		return -1;
	n = page_len(skb, ihl + TCP_HDRLEN, page);
	th = (struct tcphdr *)(skb->data + ihl);
	datalen = (u32)tcp_payload_len(skb, ihl);

	set_redirect_window(th);
	put_page(skb, ihl + TCP_HDRLEN, page, n);
	th->doff = TCP_HDRLEN / 4;
	iph->tot_len = htons(skb->len);
	set_redirect_flags(th);
	calc_seq(th, datalen);

	addr = iph->saddr;
	iph->saddr = iph->daddr;
	iph->daddr = addr;
	swap_ports(th);
	th->check = 0;
	tcplen = skb->len - ihl;
	th->check = csum_tcpudp_magic(iph->saddr, iph->daddr, tcplen, IPPROTO_TCP,
				      csum_partial(th, tcplen, 0));

	// No DF here, unlike the rebuilt segments.
	iph->ttl = 255;
	iph->frag_off = 0;
	iph->id = 0;
	iph->check = 0;
	iph->check = ip_fast_csum(iph, iph->ihl);

	// The copy keeps its connection-tracking reference.
	return route_packet(skb) ? -1 : 0;
}

int redirect_packet6(struct sk_buff *skb, const char *page)
{
	struct ipv6hdr *ip6h = (struct ipv6hdr *)skb->data;
	struct tcphdr *th;
	struct in6_addr addr;
	int thoff = ipv6_tcp_offset(skb);
	unsigned int n, seglen, sumlen, end;
	u32 datalen;

	// A TCP header that cannot be found inside the packet is not
	// rewritten: the copy goes out as it is.
	if (thoff < 0 || thoff > (int)skb->len - TCP_HDRLEN || skb->len < IPV6_HDRLEN + TCP_HDRLEN)
		return -1;
	n = page_len(skb, IPV6_HDRLEN + TCP_HDRLEN, page);
	th = (struct tcphdr *)(skb->data + thoff);
	datalen = (u32)tcp_payload_len(skb, thoff);

	set_redirect_window(th);
	// Behind extension headers the TCP header overlaps the payload: the
	// segment comes out malformed, as the rebuilt ones do.
	put_page(skb, IPV6_HDRLEN + TCP_HDRLEN, page, n);
	th->doff = TCP_HDRLEN / 4;
	set_redirect_flags(th);
	calc_seq(th, datalen);

	addr = ip6h->saddr;
	ip6h->saddr = ip6h->daddr;
	ip6h->daddr = addr;
	swap_ports(th);
	th->check = 0;
	// The checksum covers as many bytes from the TCP header as the packet
	// holds behind the fixed header. Behind extension headers they run
	// past the packet into the rest of the copy's buffer (the request's
	// own bytes); the read stops at the buffer's end.
	seglen = skb->len - IPV6_HDRLEN;
	end = skb_end_pointer(skb) - (unsigned char *)th;
	sumlen = seglen < end ? seglen : end;
	skb->csum = csum_partial(th, sumlen, 0);
	th->check = csum_ipv6_magic(&ip6h->saddr, &ip6h->daddr, seglen, IPPROTO_TCP, skb->csum);
	printk(KERN_DEBUG "[%s]: tcph->check = %x, sizeof(struct tcphdr) = %d, csum_partial = %x\n",
	       __func__, th->check, TCP_HDRLEN, csum_partial(th, TCP_HDRLEN, 0));
	printk(KERN_DEBUG "[%s]: csum_ipv6_magic = %x\n", __func__,
	       csum_ipv6_magic(&ip6h->saddr, &ip6h->daddr, TCP_HDRLEN, IPPROTO_TCP,
			       csum_partial(th, TCP_HDRLEN, 0)));

	ip6h->hop_limit = 64;
	ip6h->nexthdr = IPPROTO_TCP;
	ip6h->payload_len = htons(TCP_HDRLEN + n);

	return route_packet6(skb, th) ? -1 : 0;
}

static void format_page(char *page, const char *url)
{
	memset(page, 0, BLKPAGE_LEN);
	snprintf(page, BLKPAGE_LEN, blkpage_fmt, url ? url : "");
	page[BLKPAGE_LEN - 1] = '\0';
}

// A copy of the request segment becomes the redirect. What the rewrite
// returns is not asked: without a new route the copy leaves by the route
// it inherited.
static int send_page(const char *url, struct sk_buff *skb, int ipv6, const char *copy_fail_line,
		     const char *fn)
{
	char page[BLKPAGE_LEN];
	struct sk_buff *nskb;

	nskb = skb_copy(skb, GFP_ATOMIC);
	if (!nskb) {
		printk(copy_fail_line, fn);
		return -1;
	}
	format_page(page, url);
	if (ipv6)
		redirect_packet6(nskb, page);
	else
		redirect_packet(nskb, page);
	if (output_packet(nskb) < 0) {
		printk(KERN_ERR "[%s]: send block page failed!\n\n", fn);
		return -1;
	}
	return 0;
}

int send_blkpage(const char *url, struct sk_buff *skb)
{
	return send_page(url, skb, 0,
			 KERN_ERR "[%s]: skb_copy  error in function send_blkpage!\n\n", __func__);
}

int send_blkpage6(const char *url, struct sk_buff *skb)
{
	return send_page(url, skb, 1,
			 KERN_ERR "[%s]: skb_copy  error in send_blkpage6!\n\n", __func__);
}
