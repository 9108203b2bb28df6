// The HTTP forward hook for IPv6, twin of forward_hook with its own
// differences: the request is collected across segments, server segments
// are dropped while it is collected, passed connections leave through the
// IPv4 table's delete, an undecodable request from a time-blocked device
// is blocked, the last ACK does not count the client's FIN, and every
// step leaves a debug line.
#include "core/rating.h"
#include "decode/http.h"
#include "forge/answer.h"
#include "forge/blkpage.h"
#include "forge/output.h"
#include "forge/rebuild.h"
#include "hooks/common.h"
#include "hooks/hooks.h"
#include "hooks/http_request.h"
#include "linux/in.h"
#include "linux/ipv6.h"
#include "linux/kernel.h"
#include "linux/slab.h"
#include "linux/string.h"
#include "linux/tcp.h"
#include "net/ipv6.h"
#include "track/tcp_table.h"

#define HTTP_PORT 80
// The collected text never grows past this many bytes.
#define REQ6_TEXT_MAX (TCP_REQ_BUF_LEN - 1)

static const char fn6[] = "forward_hook6";

struct http_pkt6 {
	struct ipv6hdr *ip6h;
	struct tcphdr *th;
	int tcphoff;
	const char *payload;
	s32 paylen; // negative when the options claimed run past the linear bytes
	int from_server;
};

static int no_payload6(const struct http_pkt6 *p)
{
	return p->paylen == 0;
}

// Adds the segment's payload behind the bytes held so far. -1: no room
// left, the segment is dropped. A negative payload length (options that
// run past the linear bytes) adds nothing: copied as it stands it would
// read from before the payload and shrink the count of bytes held.
static int req_collect6(struct tcp_tracking *rec, const struct http_pkt6 *p)
{
	u32 room = REQ6_TEXT_MAX - rec->req_len;
	u32 n;

	if (room < 5)
		return -1;
	if (p->paylen <= 0)
		return 0;
	if ((u32)p->paylen > room) {
		printk(KERN_DEBUG "[%s]: IPv6 header exceed buffer size(>2047), Cut Off!\n", fn6);
		n = REQ6_TEXT_MAX - 4 - rec->req_len;
		memcpy(rec->req_buf + rec->req_len, p->payload, n);
		memcpy(rec->req_buf + rec->req_len + n, "\r\n\r\n", 4);
		rec->req_len = REQ6_TEXT_MAX;
		return 0;
	}
	memcpy(rec->req_buf + rec->req_len, p->payload, p->paylen);
	rec->req_len += p->paylen;
	return 0;
}

// Length of the held text read as a string; never past the buffer.
static u32 req_text_len6(const struct tcp_tracking *rec)
{
	return strnlen(rec->req_buf, TCP_REQ_BUF_LEN);
}

// An undecodable request with PC only: the device lists decide, and a
// time-blocked device on a connection that is not white gets blocked.
static unsigned int forward_undecodable6(struct tcp_tracking *rec, struct sk_buff *skb)
{
	switch (check_device(skb)) {
	case DEVICE_PASS:
		rec->state = STATE_PASS;
		return NF_ACCEPT;
	case DEVICE_UNLISTED:
		return NF_ACCEPT;
	default:
		rec->state = STATE_BLOCK;
		return NF_DROP;
	}
}

// State 2, a segment from the client: collect it and, once the header is
// complete, send it for rating.
static unsigned int forward_rate6(struct tcp_tracking *rec, struct sk_buff *skb,
				  const struct net_device *in, const struct net_device *out, int mode,
				  const struct http_pkt6 *p)
{
	struct rating_request *req;
	// Not cleared before decoding: what the decoder leaves alone is
	// whatever the stack held.
	struct http_info info;
	u32 n;

	if (req_collect6(rec, p) < 0)
		return NF_DROP;
	n = req_text_len6(rec);
	if (n < 5)
		return NF_DROP;
	// Incomplete: the segment goes on, the next one adds to the text.
	if (memcmp(rec->req_buf + n - 4, "\r\n\r\n", 4) != 0)
		return NF_ACCEPT;
	if (decode_http(rec->req_buf, rec->req_len, &info) < 0) {
		printk(KERN_DEBUG "[%s]: header can't be recognized\n", fn6);
		if (mode & MODE_WP)
			return NF_DROP;
		return forward_undecodable6(rec, skb);
	}
	if (!info.host[0])
		return NF_DROP;
	if ((mode & MODE_PC) && device_exempted(client_mac(skb))) {
		rec->state = STATE_PASS;
		return NF_ACCEPT;
	}

	req = http_rating_request(mode, in, out, skb, &info);
	if (!req)
		return NF_ACCEPT;
	req->family = RATING_FAMILY_INET6;
	memcpy(&req->src_addr.ip6, &p->ip6h->saddr, 16);
	memcpy(&req->dst_addr.ip6, &p->ip6h->daddr, 16);
	req->src_port = p->th->source;
	req->dst_port = p->th->dest;

	http_hold_and_rate(rec, skb, req);
	return NF_ACCEPT;
}

static unsigned int forward_untracked6(struct sk_buff *skb, const struct net_device *in, int mode,
				       const struct http_pkt6 *p)
{
	if (tcp_pure_syn(p->th) && no_payload6(p)) {
		printk(KERN_DEBUG "[%s]: forward_hook6: add tcp SYN\n\n", fn6);
		tcp_add6(p->ip6h, p->th);
		return NF_ACCEPT;
	}
	if (mode != MODE_PC)
		return NF_ACCEPT;
	if (!dev_is(in, "br0") && !dev_is(in, "br1"))
		return NF_ACCEPT;
	return check_device(skb) == DEVICE_BLOCKED ? NF_DROP : NF_ACCEPT;
}

static unsigned int forward_state6(struct tcp_tracking *rec, struct sk_buff *skb,
				   const struct net_device *in, const struct net_device *out, int mode,
				   struct http_pkt6 *p)
{
	struct sk_buff *nskb;

	switch (rec->state) {
	case STATE_SYN_RCVD:
		printk(KERN_DEBUG "[%s]: STATE_SYN_RCVD:\n", fn6);
		if (tcp_pure_ack(p->th) && no_payload6(p))
			rec->state = STATE_ESTAB;
		return NF_ACCEPT;
	case STATE_ESTAB:
		printk(KERN_DEBUG "[%s]: STATE_ESTAB:\n", fn6);
		if (p->from_server)
			return NF_DROP;
		return forward_rate6(rec, skb, in, out, mode, p);
	case STATE_RATING:
		printk(KERN_DEBUG "[%s]: STATE_RATING:\n", fn6);
		return NF_DROP;
	case STATE_PASS:
		printk(KERN_DEBUG "[%s]: STATE_PASS:\n", fn6);
		tcp_delete(rec); // the IPv4 table's: the slot changes tables
		return NF_ACCEPT;
	case STATE_WHITE_PASS:
		tcp_delete(rec);
		return NF_ACCEPT;
	case STATE_BLOCK:
		printk(KERN_DEBUG "[%s]: STATE_BLOCK:\n", fn6);
		if (p->from_server) {
			reset_server6(skb);
			return NF_DROP;
		}
		if (ack_client6(skb) < 0)
			return NF_DROP;
		send_blkpage6(rec->redirect_url, skb);
		rec->state = STATE_REDIRECT;
		return NF_DROP;
	case STATE_REDIRECT:
		printk(KERN_DEBUG "[%s]: STATE_REDIRECT:\n", fn6);
		if (!tcp_pure_ack(p->th) || !no_payload6(p) || p->th->dest != htons(HTTP_PORT))
			return NF_DROP;
		nskb = rebuild_packet6(skb, 0, REBUILD_FIN_ACK, &p->tcphoff, 1);
		if (!nskb) {
			printk(KERN_DEBUG "[%s]: rebuild FIN ACK to client failed!\n", fn6);
			return NF_DROP;
		}
		output_packet(nskb);
		rec->state = STATE_FIN_WAIT1;
		return NF_DROP;
	case STATE_FIN_WAIT1:
		printk(KERN_DEBUG "[%s]: STATE_FIN_WAIT1:\n", fn6);
		if (p->from_server)
			return NF_ACCEPT;
		if (tcp_pure_ack(p->th) && no_payload6(p))
			rec->state = STATE_FIN_WAIT2;
		return NF_DROP;
	case STATE_FIN_WAIT2:
		printk(KERN_DEBUG "[%s]: STATE_FIN_WAIT2:\n", fn6);
		if (!tcp_fin_ack(p->th) || !no_payload6(p))
			return NF_DROP;
		// Acknowledges the FIN segment's own sequence number.
		nskb = rebuild_packet6(skb, 0, REBUILD_ACK, &p->tcphoff, 1);
		if (!nskb) {
			printk(KERN_DEBUG "[%s]: rebuild ACK to client failed!\n", fn6);
			return NF_DROP;
		}
		output_packet(nskb);
		tcp_delete6(rec);
		return NF_DROP;
	default:
		printk(KERN_DEBUG "[%s]: unknown TCP tracking state.\n", fn6);
		return NF_DROP;
	}
}

static noinline unsigned int forward_hook6_on(int mode, struct sk_buff *skb, const struct net_device *in,
					      const struct net_device *out)
{
	struct tcp_tracking *rec;
	struct http_pkt6 p;
	u8 nexthdr;
	int tcplen;

	if (!skb || !in || !out)
		return NF_ACCEPT;
	if (strcmp(in->name, out->name) == 0)
		return NF_ACCEPT;
	// Headers outside the linear area are pulled into it before they are
	// read, so that no segment escapes filtering by the way it was
	// received. A packet too short for the fixed header is no IPv6 packet.
	if (!pskb_may_pull(skb, sizeof(struct ipv6hdr)))
		return NF_ACCEPT;
	p.ip6h = ipv6_hdr(skb);
	if (!(__ipv6_addr_type(&p.ip6h->saddr) & IPV6_ADDR_UNICAST) ||
	    !(__ipv6_addr_type(&p.ip6h->daddr) & IPV6_ADDR_UNICAST)) {
		printk(KERN_DEBUG "[%s]: forward_hook6: IPv6 address is not unicast.\n\n", fn6);
		return NF_ACCEPT;
	}

	nexthdr = p.ip6h->nexthdr;
	p.tcphoff = ipv6_skip_exthdr(skb, sizeof(struct ipv6hdr), &nexthdr);
	if (p.tcphoff < 0 || skb->len < (unsigned int)p.tcphoff)
		return NF_ACCEPT;
	tcplen = skb->len - p.tcphoff;
	if (nexthdr != IPPROTO_TCP || tcplen < (int)sizeof(struct tcphdr)) {
		printk(KERN_DEBUG "[%s]: forward_hook6: proto(%d) != IPPROTO_TCP, or too short. otcplen = %d\n\n",
		       fn6, nexthdr, tcplen);
		return NF_ACCEPT;
	}
	printk(KERN_DEBUG "[%s]: tcphoff = %d \n", fn6, p.tcphoff);
	// The packet holds the TCP header (checked above): only a failed
	// allocation keeps it from being pulled.
	if (!pskb_may_pull(skb, p.tcphoff + sizeof(struct tcphdr)))
		return NF_ACCEPT;
	p.ip6h = ipv6_hdr(skb);
	p.th = (struct tcphdr *)(skb_network_header(skb) + p.tcphoff);
	if (p.th->source != htons(HTTP_PORT) && p.th->dest != htons(HTTP_PORT)) {
		printk(KERN_DEBUG "[%s]: Not HTTP\n\n", fn6);
		return NF_ACCEPT;
	}
	p.from_server = p.th->source == htons(HTTP_PORT);
	// The payload is what lies linear behind the header and its options;
	// its length is negative when the options run past the linear bytes,
	// and such a segment is no segment "without payload".
	p.payload = (const char *)p.th + p.th->doff * 4;
	p.paylen = skb_tail_pointer(skb) - (const unsigned char *)p.payload;

	rec = tcp_find6(p.ip6h, p.th);
	if (!rec)
		return forward_untracked6(skb, in, mode, &p);
	tcp_update_timeout6(rec);
	return forward_state6(rec, skb, in, out, mode, &p);
}

unsigned int forward_hook6(unsigned int, struct sk_buff *skb, const struct net_device *in,
			   const struct net_device *out, int (*)(struct sk_buff *))
{
	int mode = service_mode();

	// Both services off: out before the body's set-up.
	if (!mode)
		return NF_ACCEPT;
	return forward_hook6_on(mode, skb, in, out);
}
