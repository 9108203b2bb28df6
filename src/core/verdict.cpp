// The verdict dispatcher. A reply names its connection by addresses and
// ports; zero ports mark a non-HTTP flow, whose state alone is changed
// (its hook acts on the next packet). An HTTP connection is acted on at
// once: the held request is replayed, or the client gets the block page.
//
// Held copies: each is sent or freed once. The dispatcher detaches the copy
// from the record before it publishes the verdict's state, so a packet of
// the connection that sees the new state (and deletes the record, which
// frees a copy still held) can never free the one being sent; a late or
// repeated reply finds nothing to replay.
//
// The block page's Location is the record's bounded copy of the reply's
// address (at most 511 characters), never the raw 512-byte reply field,
// which a daemon may send without a terminating NUL.
#include "core/verdict.h"

#include "forge/answer.h"
#include "forge/blkpage.h"
#include "forge/output.h"
#include "linux/ip.h"
#include "linux/ipv6.h"
#include "linux/kernel.h"
#include "linux/string.h"
#include "linux/tcp.h"
#include "net/netfilter/nf_conntrack.h"
#include "track/pct_table.h"
#include "track/ssl_table.h"
#include "track/tcp_table.h"

#define IP4_FMT "%u.%u.%u.%u"
#define IP4_BYTES(a) (a)[0], (a)[1], (a)[2], (a)[3]

static void set_white_mark(struct nf_conntrack *nfct)
{
	if (nfct)
		((struct nf_conn *)nfct)->white_mark = 1;
}

// Takes the held copy out of the record: from here on the caller owns it.
static struct sk_buff *take_held(struct tcp_tracking *rec)
{
	struct sk_buff *skb = rec->held_skb;

	rec->held_skb = NULL;
	return skb;
}

static void replay(struct sk_buff *held)
{
	if (held)
		output_packet(held);
}

// BLOCK: acknowledge the request and answer it with the block page.
static void answer_block(struct tcp_tracking *rec, struct sk_buff *held,
			 int (*send_page)(const char *, struct sk_buff *))
{
	rec->state = STATE_BLOCK;
	if (held) {
		ack_client(held);
		send_page(rec->redirect_url, held);
		kfree_skb(held);
	}
	rec->state = STATE_REDIRECT;
}

static void copy_redirect_url(struct tcp_tracking *rec, const struct rating_reply *reply)
{
	size_t i;

	for (i = 0; i < TCP_URL_LEN - 1; i++) {
		rec->redirect_url[i] = reply->redirect_url[i];
		if (!reply->redirect_url[i])
			break;
	}
	rec->redirect_url[TCP_URL_LEN - 1] = 0;
}

static int zero_ports(const struct rating_reply *reply)
{
	return !reply->src_port && !reply->dst_port;
}

static int addr6_is_zero(const union rating_addr *a)
{
	static const u8 zero[16] = {};

	return memcmp(a->raw, zero, sizeof(zero)) == 0;
}

static void reply_headers(const struct rating_reply *reply, struct iphdr *iph, struct tcphdr *th)
{
	memset(iph, 0, sizeof(*iph));
	memset(th, 0, sizeof(*th));
	iph->saddr = reply->src_addr.ip;
	iph->daddr = reply->dst_addr.ip;
	th->source = reply->src_port;
	th->dest = reply->dst_port;
}

static void reply_headers6(const struct rating_reply *reply, struct ipv6hdr *ip6h, struct tcphdr *th)
{
	memset(ip6h, 0, sizeof(*ip6h));
	memset(th, 0, sizeof(*th));
	memcpy(&ip6h->saddr, &reply->src_addr.ip6, 16);
	memcpy(&ip6h->daddr, &reply->dst_addr.ip6, 16);
	th->source = reply->src_port;
	th->dest = reply->dst_port;
}

// PC, non-HTTP: the state an HTTPS flow takes for a verdict, with its log
// line; 0 for a verdict that changes nothing.
static int ssl_verdict_state(u32 verdict, const char *fn, const char *host)
{
	switch (verdict) {
	case WHITE_PASS:
		printk(KERN_DEBUG "[%s]: [PC]non-HTTP: host=%s --> WHITE_PASS\n", fn, host);
		return STATE_WHITE_PASS;
	case PASS:
		printk(KERN_DEBUG "[%s]: [PC]non-HTTP: host=%s --> PASS\n", fn, host);
		return STATE_PASS;
	case BLOCK:
		printk(KERN_DEBUG "[%s]: [PC]non-HTTP: host=%s --> BLOCK\n", fn, host);
		return STATE_BLOCK;
	}
	return 0;
}

// Every known verdict makes the flow trusted; WHITE_PASS also marks the
// connection white.
static int ssl_verdict(const struct rating_reply *reply, const char *fn)
{
	struct ssl_tracking *rec;
	struct iphdr iph;
	struct tcphdr th;
	int state;

	reply_headers(reply, &iph, &th);
	rec = ssl_find(&iph);
	if (!rec) {
		printk(KERN_DEBUG "[%s]: no ssl tracking found\n", fn);
		return 0;
	}
	state = ssl_verdict_state(reply->verdict, fn, rec->host);
	if (!state)
		return 0;
	ssl_update_state(rec, state);
	ssl_update_trust(rec, 1);
	if (state == STATE_WHITE_PASS)
		set_white_mark(rec->nfconn);
	return 0;
}

static int ssl6_verdict(const struct rating_reply *reply, const char *fn)
{
	struct ssl6_tracking *rec;
	struct ipv6hdr ip6h;
	struct tcphdr th;
	int state;

	reply_headers6(reply, &ip6h, &th);
	rec = ssl6_find(&ip6h);
	if (!rec) {
		printk(KERN_DEBUG "[%s]: no ssl tracking found\n", fn);
		return 0;
	}
	state = ssl_verdict_state(reply->verdict, fn, rec->host);
	if (!state)
		return 0;
	ssl6_update_state(rec, state);
	ssl6_update_trust(rec, 1);
	if (state == STATE_WHITE_PASS)
		set_white_mark(rec->nfconn);
	return 0;
}

// WP, non-HTTP: WP knows no white pass; every verdict but PASS blocks.
static int pct_verdict_state(u32 verdict, const char *fn, const char *host)
{
	if (verdict == PASS) {
		printk(KERN_DEBUG "[%s]: [WP]non-HTTP: host=%s --> PASS\n", fn, host);
		return STATE_PASS;
	}
	if (verdict == BLOCK)
		printk(KERN_DEBUG "[%s]: [WP]non-HTTP: host=%s --> BLOCK\n", fn, host);
	return STATE_BLOCK;
}

static int pct_verdict(const struct rating_reply *reply, const char *fn)
{
	struct pct_tracking *rec = pct_find(reply->dst_addr.ip);

	if (!rec) {
		printk(KERN_DEBUG "[%s]: no pct tracking found\n", fn);
		return 0;
	}
	pct_update_state(rec, pct_verdict_state(reply->verdict, fn, rec->host));
	return 0;
}

static int pct6_verdict(const struct rating_reply *reply, const char *fn)
{
	struct pct6_tracking *rec = pct6_find(reply->dst_addr.raw);

	if (!rec) {
		printk(KERN_DEBUG "[%s]: no pct tracking found\n", fn);
		return 0;
	}
	pct6_update_state(rec, pct_verdict_state(reply->verdict, fn, rec->host));
	return 0;
}

// An HTTP connection of tcp_table: act on the verdict now.
static int tcp_verdict(const struct rating_reply *reply)
{
	static const char fn[] = "receive_from_user";
	const char *svc = reply->service == RATING_WP_REPLY ? "WP" : "PC";
	const u8 *s = reply->src_addr.raw, *d = reply->dst_addr.raw;
	struct tcp_tracking *rec;
	struct sk_buff *held;
	struct iphdr iph;
	struct tcphdr th;

	reply_headers(reply, &iph, &th);
	rec = tcp_find(&iph, &th);
	if (!rec) {
		printk(KERN_DEBUG "[%s]: no tcp tracking found\n", fn);
		return 0;
	}
	copy_redirect_url(rec, reply);
	switch (reply->verdict) {
	case WHITE_PASS:
		printk(KERN_DEBUG "[%s]: [%s]HTTP: connection=[" IP4_FMT " - " IP4_FMT "] --> WHITE_PASS\n",
		       fn, svc, IP4_BYTES(s), IP4_BYTES(d));
		held = take_held(rec);
		rec->state = STATE_WHITE_PASS;
		set_white_mark(rec->nfconn);
		replay(held);
		break;
	case PASS:
		printk(KERN_DEBUG "[%s]: [%s]HTTP: connection=[" IP4_FMT " - " IP4_FMT "] --> PASS\n",
		       fn, svc, IP4_BYTES(s), IP4_BYTES(d));
		held = take_held(rec);
		rec->state = STATE_PASS;
		replay(held);
		break;
	case BLOCK:
		printk(KERN_DEBUG "[%s]: [%s]HTTP: connection=[" IP4_FMT " - " IP4_FMT "] --> BLOCK\n",
		       fn, svc, IP4_BYTES(s), IP4_BYTES(d));
		answer_block(rec, take_held(rec), send_blkpage);
		break;
	}
	return 0;
}

// The IPv6 twin: no log lines, and the client's acknowledgement is the
// IPv4 one (which refuses an IPv6 packet).
static int tcp6_verdict(const struct rating_reply *reply)
{
	struct tcp_tracking *rec;
	struct sk_buff *held;
	struct ipv6hdr ip6h;
	struct tcphdr th;

	reply_headers6(reply, &ip6h, &th);
	rec = tcp_find6(&ip6h, &th);
	if (!rec) {
		printk(KERN_DEBUG "[%s]: no tcp tracking found\n", "handle6");
		return 0;
	}
	copy_redirect_url(rec, reply);
	switch (reply->verdict) {
	case WHITE_PASS:
		held = take_held(rec);
		rec->state = STATE_WHITE_PASS;
		set_white_mark(rec->nfconn);
		replay(held);
		break;
	case PASS:
		held = take_held(rec);
		rec->state = STATE_PASS;
		replay(held);
		break;
	case BLOCK:
		answer_block(rec, take_held(rec), send_blkpage6);
		break;
	}
	return 0;
}

static int expected_reply(const struct rating_reply *reply, const char *fn)
{
	if (reply->kind == RATING_KIND_REPLY &&
	    (reply->service == RATING_PC_REPLY || reply->service == RATING_WP_REPLY))
		return 1;
	printk(KERN_ERR "[%s]: unexpected packet type incoming to hook, %d, %d\n", fn, reply->kind,
	       reply->service);
	return 0;
}

int handle6(const struct rating_reply *reply)
{
	if (!expected_reply(reply, "handle6"))
		return -1;
	if (reply->service == RATING_PC_REPLY && zero_ports(reply))
		return ssl6_verdict(reply, "handle6");
	// Unlike IPv4, a WP flow reply names a client here.
	if (reply->service == RATING_WP_REPLY && !addr6_is_zero(&reply->src_addr) && zero_ports(reply))
		return pct6_verdict(reply, "handle6");
	return tcp6_verdict(reply);
}

int receive_from_user(void *data, u16 type, int len)
{
	const struct rating_reply *reply = (const struct rating_reply *)data;

	(void)type;
	(void)len;
	if (reply->family == RATING_FAMILY_INET6)
		return handle6(reply);
	if (!expected_reply(reply, "receive_from_user"))
		return -1;
	if (reply->service == RATING_PC_REPLY && zero_ports(reply))
		return ssl_verdict(reply, "receive_from_user");
	if (reply->service == RATING_WP_REPLY && !reply->src_addr.ip && zero_ports(reply))
		return pct_verdict(reply, "receive_from_user");
	return tcp_verdict(reply);
}
