// The HTTP forward hook for IPv4: follows port-80 connections through
// the tracking states of tcp_table, sends each connection's first request
// for rating, holds the connection until the verdict, and answers blocked
// connections itself (block page, server reset, closing handshake).
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
#include "linux/ip.h"
#include "linux/kernel.h"
#include "linux/slab.h"
#include "linux/string.h"
#include "linux/tcp.h"
#include "track/tcp_table.h"

#define HTTP_PORT 80
// snprintf(req_buf, 2047, ...) keeps this many characters.
#define REQ_TEXT_MAX (TCP_REQ_BUF_LEN - 2)

struct http_pkt {
	struct iphdr *iph;
	struct tcphdr *th;
	const char *payload;
	s32 paylen;      // linear bytes behind the TCP header and its options,
			 // negative when the options run past them
	int from_server; // source port 80
};

static int no_payload(const struct http_pkt *p)
{
	return p->paylen == 0;
}

// The payload taken as a string (up to its first NUL, never past its
// linear bytes) followed by "\r\n\r\n", cut to what snprintf into 2047
// bytes would keep. Returns the untruncated length, as snprintf does.
static u32 req_write(char *buf, const char *payload, s32 paylen)
{
	static const char tail[] = "\r\n\r\n";
	u32 n = paylen > 0 ? strnlen(payload, paylen) : 0;
	u32 kept = n < REQ_TEXT_MAX ? n : REQ_TEXT_MAX;
	u32 i;

	memcpy(buf, payload, kept);
	for (i = 0; i < 4 && kept < REQ_TEXT_MAX; i++)
		buf[kept++] = tail[i];
	buf[kept] = 0;
	buf[TCP_REQ_BUF_LEN - 1] = 0;
	return n + 4;
}

// State 2, a packet from the client: decode what it carries and send it
// for rating, keeping a copy of the packet for the verdict.
static unsigned int forward_rate(struct tcp_tracking *rec, struct sk_buff *skb,
				 const struct net_device *in, const struct net_device *out, int mode,
				 const struct http_pkt *p)
{
	struct rating_request *req;
	struct http_info info;
	u32 len;

	rec->req_len = req_write(rec->req_buf, p->payload, p->paylen);
	memset(&info, 0, sizeof(info));
	// The text ends at or before byte 2047 whatever req_len says.
	len = rec->req_len < TCP_REQ_BUF_LEN - 1 ? rec->req_len : TCP_REQ_BUF_LEN - 1;
	if (decode_http(rec->req_buf, len, &info) < 0) {
		if (mode & MODE_WP)
			return NF_DROP;
		switch (check_device(skb)) {
		case DEVICE_PASS:
			tcp_update_state(rec, STATE_PASS);
			return NF_ACCEPT;
		case DEVICE_UNLISTED:
			return NF_ACCEPT;
		default:
			return NF_DROP;
		}
	}
	if ((mode & MODE_PC) && device_exempted(client_mac(skb))) {
		tcp_update_state(rec, STATE_PASS);
		return NF_ACCEPT;
	}

	req = http_rating_request(mode, in, out, skb, &info);
	if (!req)
		return NF_ACCEPT;
	req->family = RATING_FAMILY_INET;
	req->src_addr.ip = p->iph->saddr;
	req->dst_addr.ip = p->iph->daddr;
	req->src_port = p->th->source;
	req->dst_port = p->th->dest;

	http_hold_and_rate(rec, skb, req);
	return NF_ACCEPT;
}

static unsigned int forward_untracked(struct sk_buff *skb, const struct net_device *in, int mode,
				      const struct http_pkt *p)
{
	if (tcp_pure_syn(p->th) && no_payload(p)) {
		tcp_add(p->iph, p->th);
		return NF_ACCEPT;
	}
	// With both services on, untracked packets skip the device lists.
	if (mode != MODE_PC)
		return NF_ACCEPT;
	if (!dev_is(in, "br0") && !dev_is(in, "br1"))
		return NF_ACCEPT;
	return check_device(skb) == DEVICE_BLOCKED ? NF_DROP : NF_ACCEPT;
}

static unsigned int forward_state(struct tcp_tracking *rec, struct sk_buff *skb,
				  const struct net_device *in, const struct net_device *out, int mode,
				  const struct http_pkt *p)
{
	struct sk_buff *nskb;

	switch (rec->state) {
	case STATE_SYN_RCVD:
		if (tcp_pure_ack(p->th) && no_payload(p))
			rec->state = STATE_ESTAB;
		if (!rec->nfconn)
			tcp_update_nfconn(rec, skb);
		return NF_ACCEPT;
	case STATE_ESTAB:
		if (p->from_server)
			return NF_ACCEPT;
		return forward_rate(rec, skb, in, out, mode, p);
	case STATE_RATING:
		return NF_DROP;
	case STATE_PASS:
	case STATE_WHITE_PASS:
		tcp_delete(rec);
		return NF_ACCEPT;
	case STATE_BLOCK:
		if (p->from_server) {
			printk(KERN_DEBUG "[%s]: packet FROM server, reset it\n", "forward_hook");
			reset_server(skb);
			return NF_DROP;
		}
		if (ack_client(skb) < 0)
			return NF_DROP;
		send_blkpage(rec->redirect_url, skb);
		rec->state = STATE_REDIRECT;
		return NF_DROP;
	case STATE_REDIRECT:
		if (p->th->dest != htons(HTTP_PORT) || !tcp_pure_ack(p->th) || !no_payload(p))
			return NF_DROP;
		nskb = rebuild_packet(skb, 0, REBUILD_FIN_ACK, 1);
		if (!nskb) {
			printk(KERN_DEBUG "[%s]: rebuild FIN_ACK to client failed!\n", "forward_hook");
			return NF_DROP;
		}
		output_packet(nskb);
		rec->state = STATE_FIN_WAIT1;
		return NF_DROP;
	case STATE_FIN_WAIT1:
		if (p->from_server)
			return NF_ACCEPT;
		if (tcp_pure_ack(p->th) && no_payload(p))
			rec->state = STATE_FIN_WAIT2;
		return NF_DROP;
	case STATE_FIN_WAIT2:
		if (!tcp_fin_ack(p->th) || !no_payload(p))
			return NF_DROP;
		// The last ACK counts the client's FIN.
		nskb = rebuild_packet(skb, 1, REBUILD_ACK, 1);
		if (!nskb)
			return NF_DROP;
		output_packet(nskb);
		tcp_delete(rec);
		return NF_DROP;
	default: // 0: never set
		return NF_DROP;
	}
}

static noinline unsigned int forward_hook_on(int mode, struct sk_buff *skb, const struct net_device *in,
					     const struct net_device *out)
{
	struct tcp_tracking *rec;
	struct http_pkt p;
	u8 _proto, *proto;
	unsigned int thoff;

	if (!skb || !in || !out)
		return NF_ACCEPT;
	if (strcmp(in->name, out->name) == 0)
		return NF_ACCEPT;
	proto = (u8 *)skb_header_pointer(skb, offsetof(struct iphdr, protocol), 1, &_proto);
	if (!proto || *proto != IPPROTO_TCP)
		return NF_ACCEPT;

	// Both pulls are measured from the start of the IPv4 header.
	if (!pskb_may_pull(skb, sizeof(struct tcphdr)))
		return NF_ACCEPT;
	thoff = ip_hdr(skb)->ihl * 4;
	// The TCP header is pulled into the linear area before it is read, so
	// no segment escapes filtering by the way it was received; one the
	// packet does not hold is not a segment.
	if (!pskb_may_pull(skb, thoff + sizeof(struct tcphdr)))
		return NF_ACCEPT;
	p.th = (struct tcphdr *)(skb_network_header(skb) + thoff);
	if (p.th->doff < 5)
		return NF_ACCEPT;
	if (!pskb_may_pull(skb, p.th->doff * 4))
		return NF_ACCEPT;
	p.iph = ip_hdr(skb);
	p.th = (struct tcphdr *)(skb_network_header(skb) + thoff);
	// Negative when the options run past the linear bytes: such a segment
	// is no segment "without payload", and its text is empty.
	p.payload = (const char *)p.th + p.th->doff * 4;
	p.paylen = skb_tail_pointer(skb) - (const unsigned char *)p.payload;

	if (p.th->source != htons(HTTP_PORT) && p.th->dest != htons(HTTP_PORT))
		return NF_ACCEPT;
	p.from_server = p.th->source == htons(HTTP_PORT);
	if (mode == MODE_WP && (dev_is(in, "br1") || dev_is(out, "br1")))
		return NF_ACCEPT;

	rec = tcp_find(p.iph, p.th);
	if (!rec)
		return forward_untracked(skb, in, mode, &p);
	tcp_update_timeout(rec);
	if (rec->state > STATE_FIN_WAIT2)
		return NF_DROP;
	return forward_state(rec, skb, in, out, mode, &p);
}

unsigned int forward_hook(unsigned int, struct sk_buff *skb, const struct net_device *in,
			  const struct net_device *out, int (*)(struct sk_buff *))
{
	int mode = service_mode();

	// Both services off: out before the body's set-up.
	if (!mode)
		return NF_ACCEPT;
	return forward_hook_on(mode, skb, in, out);
}
