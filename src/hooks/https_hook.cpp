// HTTPS and other non-HTTP flows for PC at FORWARD. A packet whose two
// addresses are a (client, server) pair learnt from DNS is rated by the
// name looked up, with the client's MAC; its packets are dropped until the
// verdict makes the flow trusted. Exempted devices pass; time-blocked
// devices lose every packet outside a recorded flow unless the connection
// was marked white.
#include "core/hook_registry.h"
#include "hooks/common.h"
#include "hooks/flow_exceptions.h"
#include "hooks/flow_request.h"
#include "hooks/hooks.h"
#include "linux/if_ether.h"
#include "linux/in.h"
#include "linux/ip.h"
#include "linux/ipv6.h"
#include "linux/jiffies.h"
#include "linux/kernel.h"
#include "linux/string.h"
#include "linux/tcp.h"
#include "linux/udp.h"
#include "lists/tblock.h"
#include "lists/unblock.h"
#include "net/arp.h"
#include "net/ipv6.h"
#include "net/ndisc.h"
#include "net/neighbour.h"
#include "track/ssl_table.h"
#include "track/tcp_table.h"

#define DNS_PORT 53
#define HTTP_PORT 80
#define NUD_USABLE 0xde // NUD_VALID: reachable, stale, delay, probe, permanent, noarp

// The client's MAC from the neighbour cache: an inbound packet's client is
// its destination, behind the output device. The entry is marked used and
// released at once. 0 when no usable entry exists.
static int flow_neigh_mac(struct neigh_table *tbl, const void *addr, const struct net_device *out,
			  u8 *mac)
{
	struct neighbour *n;
	int found = 0;

	n = neigh_lookup(tbl, addr, (struct net_device *)out);
	if (!n)
		return 0;
	n->used = jiffies;
	if (n->nud_state & NUD_USABLE) {
		unsigned int len = out->addr_len < ETH_ALEN ? out->addr_len : ETH_ALEN;

		memcpy(mac, n->ha, len);
		found = 1;
	}
	neigh_release(n);
	return found;
}

// Outside every recorded flow only the time-block list applies.
static unsigned int https_unrecorded(const struct sk_buff *skb, const u8 *mac)
{
	if (!tblk_get(mac))
		return NF_ACCEPT;
	return is_white_conn(skb) > 0 ? NF_ACCEPT : NF_DROP;
}

static unsigned int https_by_state(u8 state)
{
	return state == STATE_PASS || state == STATE_WHITE_PASS ? NF_ACCEPT : NF_DROP;
}

// ---- IPv4 ----

static unsigned int https_request_rating(struct ssl_tracking *rec, const u8 *mac)
{
	struct rating_request *req;

	req = flow_request_alloc(RATING_PC_REQUEST, "/", rec->host);
	if (!req)
		return NF_ACCEPT;
	req->family = RATING_FAMILY_INET;
	req->src_addr.ip = rec->client;
	req->dst_addr.ip = rec->server;
	req->src_port = 0;
	req->dst_port = 0;
	memcpy(req->mac, mac, ETH_ALEN);
	flow_request_send(req);
	ssl_update_state(rec, STATE_RATING);
	return NF_DROP;
}

// The entry step of both families. With WP on as well, WP governs
// everything but the second bridge; a packet that leaves by the device it
// came in on is not judged.
static int https_judged(const struct sk_buff *skb, const struct net_device *in,
			const struct net_device *out)
{
	if (wp_enabled && in && !dev_is(in, "br1"))
		return 0;
	if (!skb || !in || !out)
		return 0;
	return strcmp(in->name, out->name) != 0;
}

// The IPv4 body, for a packet between two different devices.
static unsigned int https_forward_judge(struct sk_buff *skb, const struct net_device *in,
					const struct net_device *out)
{
	u8 mac[ETH_ALEN] = {};
	const struct iphdr *iph;
	struct ssl_tracking *rec;

	if (flow_is_dns4(skb) || flow_is_http4(skb))
		return NF_ACCEPT;
	if (!flow_make_linear(skb, sizeof(struct iphdr)))
		return NF_ACCEPT;
	iph = ip_hdr(skb);

	if (dev_is(in, "br0") || dev_is(in, "br1")) {
		memcpy(mac, client_mac(skb), ETH_ALEN);
	} else if (!flow_neigh_mac(&arp_tbl, &iph->daddr, out, mac)) {
		const u8 *s = (const u8 *)&iph->saddr, *d = (const u8 *)&iph->daddr;

		printk(KERN_DEBUG "[%s]: Find in=%s, out=%s [%u.%u.%u.%u-->%u.%u.%u.%u]'s ARP cache failed\n\n",
		       "https_forward_hook", in->name, out->name, s[0], s[1], s[2], s[3], d[0], d[1], d[2],
		       d[3]);
		return NF_ACCEPT;
	}
	if (device_exempted(mac))
		return NF_ACCEPT;

	rec = ssl_find_with_trust(iph);
	if (rec) {
		ssl_update_timeout(rec);
		if (!rec->nfconn && ssl_update_nfconn(rec, skb) < 0)
			return NF_DROP;
		return https_by_state(rec->state);
	}

	rec = ssl_find(iph);
	if (!rec)
		return https_unrecorded(skb, mac);
	if (!rec->nfconn && ssl_update_nfconn(rec, skb) < 0)
		return NF_DROP;
	ssl_update_state(rec, STATE_ESTAB);
	ssl_update_timeout(rec);
	// The verdict dispatcher may have written the state in between.
	switch (rec->state) {
	case STATE_ESTAB:
		return https_request_rating(rec, mac);
	default:
		return https_by_state(rec->state);
	}
}

unsigned int https_forward_hook(unsigned int, struct sk_buff *skb, const struct net_device *in,
				const struct net_device *out, int (*)(struct sk_buff *))
{
	if (!https_judged(skb, in, out))
		return NF_ACCEPT;
	return https_forward_judge(skb, in, out);
}

// ---- IPv6 ----

// The addresses come from the packet, not from the record: for a packet
// from the server they are the other way round.
static unsigned int https6_request_rating(struct ssl6_tracking *rec, const struct ipv6hdr *ip6h,
					  const u8 *mac)
{
	struct rating_request *req;

	req = flow_request_alloc(RATING_PC_REQUEST, "/", rec->host);
	if (!req)
		return NF_ACCEPT;
	req->family = RATING_FAMILY_INET6;
	memcpy(req->src_addr.raw, &ip6h->saddr, sizeof(ip6h->saddr));
	memcpy(req->dst_addr.raw, &ip6h->daddr, sizeof(ip6h->daddr));
	req->src_port = 0;
	req->dst_port = 0;
	memcpy(req->mac, mac, ETH_ALEN);
	flow_request_send(req);
	ssl6_update_state(rec, STATE_RATING);
	return NF_DROP;
}

// DNS and HTTP over IPv6: no length is checked and nothing is pulled; the
// headers are read only where they lie inside the packet. A failed
// extension walk (off < 0) excepts nothing.
static int https6_excepted(const struct sk_buff *skb, int off, u8 nexthdr)
{
	if (off < 0)
		return 0;
	if (nexthdr == IPPROTO_UDP) {
		struct udphdr _uh;
		const struct udphdr *uh;
		long payload;

		uh = (const struct udphdr *)skb_header_pointer(skb, off, sizeof(_uh), &_uh);
		if (!uh || (ntohs(uh->dest) != DNS_PORT && ntohs(uh->source) != DNS_PORT))
			return 0;
		payload = skb_tail_pointer(skb) - (skb->data + off + sizeof(_uh));
		return payload >= DNS_MIN_MESSAGE;
	}
	if (nexthdr == IPPROTO_TCP) {
		__be16 _ports[2];
		const __be16 *ports;

		ports = (const __be16 *)skb_header_pointer(skb, off, sizeof(_ports), _ports);
		return ports && (ntohs(ports[0]) == HTTP_PORT || ntohs(ports[1]) == HTTP_PORT);
	}
	return 0;
}

static unsigned int https6_forward_judge(struct sk_buff *skb, const struct net_device *in,
					 const struct net_device *out)
{
	u8 mac[ETH_ALEN] = {};
	struct ipv6hdr _ip6h;
	const struct ipv6hdr *ip6h;
	struct ssl6_tracking *rec;
	int noff, off;
	u8 nexthdr;

	noff = skb_network_offset(skb);
	ip6h = (const struct ipv6hdr *)skb_header_pointer(skb, noff, sizeof(_ip6h), &_ip6h);
	if (!ip6h)
		return NF_ACCEPT;
	if (!(__ipv6_addr_type(&ip6h->saddr) & IPV6_ADDR_UNICAST) ||
	    !(__ipv6_addr_type(&ip6h->daddr) & IPV6_ADDR_UNICAST)) {
		printk(KERN_DEBUG "[%s]: forward_hook6: IPv6 address is not unicast.\n\n",
		       "https6_forward_hook");
		return NF_ACCEPT;
	}
	nexthdr = ip6h->nexthdr;
	off = ipv6_skip_exthdr(skb, noff + sizeof(_ip6h), &nexthdr);
	if (https6_excepted(skb, off, nexthdr))
		return NF_ACCEPT;

	if (dev_is(in, "br0") || dev_is(in, "br1")) {
		memcpy(mac, client_mac(skb), ETH_ALEN);
	} else if (!flow_neigh_mac(&nd_tbl, &ip6h->daddr, out, mac)) {
		printk(KERN_DEBUG "[%s]: nd_query failed.\n\n", "https6_forward_hook");
		return NF_ACCEPT;
	}
	if (device_exempted(mac))
		return NF_ACCEPT;

	rec = ssl6_find_with_trust(ip6h);
	if (rec) {
		ssl6_update_timeout(rec);
		if (!rec->nfconn && ssl6_update_nfconn(rec, skb) < 0)
			return NF_DROP;
		return https_by_state(rec->state);
	}

	rec = ssl6_find(ip6h);
	if (!rec)
		return https_unrecorded(skb, mac);
	if (!rec->nfconn && ssl6_update_nfconn(rec, skb) < 0)
		return NF_DROP;
	ssl6_update_state(rec, STATE_ESTAB);
	ssl6_update_timeout(rec);
	switch (rec->state) {
	case STATE_ESTAB:
		return https6_request_rating(rec, ip6h, mac);
	default:
		return https_by_state(rec->state);
	}
}

unsigned int https6_forward_hook(unsigned int, struct sk_buff *skb, const struct net_device *in,
				 const struct net_device *out, int (*)(struct sk_buff *))
{
	if (!https_judged(skb, in, out))
		return NF_ACCEPT;
	return https6_forward_judge(skb, in, out);
}
