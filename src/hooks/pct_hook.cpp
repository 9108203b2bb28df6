// Non-HTTP flows for WP at FORWARD. Over IPv4 a server is reachable only
// after the daemon passed the DNS name under which the client found it;
// over IPv6 only HTTP and DNS are forwarded.
#include "hooks/common.h"
#include "hooks/flow_exceptions.h"
#include "hooks/flow_request.h"
#include "hooks/hooks.h"
#include "linux/in.h"
#include "linux/ip.h"
#include "linux/ipv6.h"
#include "linux/string.h"
#include "linux/tcp.h"
#include "linux/udp.h"
#include "net/ipv6.h"
#include "track/pct_table.h"
#include "track/tcp_table.h"

#define DNS_PORT 53
#define HTTP_PORT 80

// Asks the daemon about the record's name: no client, no ports, an empty
// url. NF_ACCEPT when the request cannot be allocated (the record stays
// new and the next packet tries again), else NF_DROP with the record
// waiting for the verdict.
static unsigned int pct_request_rating(struct pct_tracking *rec)
{
	struct rating_request *req;

	req = flow_request_alloc(RATING_WP_REQUEST, "", rec->host);
	if (!req)
		return NF_ACCEPT;
	// No family, client address or MAC in this request.
	req->src_addr.ip = 0;
	req->dst_addr.ip = rec->addr;
	req->src_port = 0;
	req->dst_port = 0;
	flow_request_send(req);
	pct_update_state(rec, STATE_RATING);
	return NF_DROP;
}

// The IPv4 decision for a packet between two different devices.
static unsigned int pct_forward_judge(struct sk_buff *skb, const struct net_device *in,
				      const struct net_device *out)
{
	struct pct_tracking *rec;
	__be32 server;

	if (flow_is_dns4(skb) || flow_is_http4(skb))
		return NF_ACCEPT;
	// The second bridge is exempt from the service.
	if (dev_is(in, "br1") || dev_is(out, "br1"))
		return NF_ACCEPT;
	// A packet too short to hold its addresses is judged like an unknown
	// server.
	if (!flow_make_linear(skb, sizeof(struct iphdr)))
		return NF_DROP;
	server = dev_is(in, "br0") ? ip_hdr(skb)->daddr : ip_hdr(skb)->saddr;

	rec = pct_find(server);
	if (!rec)
		return NF_DROP;
	pct_update_timeout(rec);
	switch (rec->state) {
	case STATE_RATING:
		return NF_DROP;
	case STATE_PASS:
		return NF_ACCEPT;
	case 0:
		return pct_request_rating(rec);
	default:
		// Blocked: forget the server until a new answer names it.
		pct_delete(rec);
		return NF_DROP;
	}
}

unsigned int pct_forward_hook(unsigned int, struct sk_buff *skb, const struct net_device *in,
			      const struct net_device *out, int (*)(struct sk_buff *))
{
	if (!skb || !in || !out)
		return NF_ACCEPT;
	if (strcmp(in->name, out->name) == 0)
		return NF_ACCEPT;
	return pct_forward_judge(skb, in, out);
}

// IPv6: a port filter that lets HTTP and DNS through.
unsigned int pct_forward_hook6(unsigned int, struct sk_buff *skb, const struct net_device *in,
			       const struct net_device *out, int (*)(struct sk_buff *))
{
	struct ipv6hdr _ip6h;
	const struct ipv6hdr *ip6h;
	int noff, off;
	u8 nexthdr;

	if (!skb || !in || !out)
		return NF_ACCEPT;
	if (strcmp(in->name, out->name) == 0)
		return NF_ACCEPT;
	noff = skb_network_offset(skb);
	ip6h = (const struct ipv6hdr *)skb_header_pointer(skb, noff, sizeof(_ip6h), &_ip6h);
	if (!ip6h)
		return NF_ACCEPT;
	nexthdr = ip6h->nexthdr;
	off = ipv6_skip_exthdr(skb, noff + sizeof(_ip6h), &nexthdr);
	if (off < 0)
		return NF_ACCEPT;

	if (nexthdr == IPPROTO_TCP) {
		struct tcphdr _th;
		const struct tcphdr *th;

		th = (const struct tcphdr *)skb_header_pointer(skb, off, sizeof(_th), &_th);
		if (!th)
			return NF_DROP;
		if (ntohs(th->source) == HTTP_PORT || ntohs(th->dest) == HTTP_PORT)
			return NF_ACCEPT;
		return NF_DROP;
	}
	if (nexthdr == IPPROTO_UDP) {
		struct udphdr _uh;
		const struct udphdr *uh;

		uh = (const struct udphdr *)skb_header_pointer(skb, off, sizeof(_uh), &_uh);
		if (!uh)
			return NF_DROP;
		if (ntohs(uh->source) == DNS_PORT || ntohs(uh->dest) == DNS_PORT)
			return NF_ACCEPT;
		return NF_DROP;
	}
	return NF_DROP;
}
