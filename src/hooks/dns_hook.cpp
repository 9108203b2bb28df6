// DNS snooping at PRE_ROUTING: queries tell which client asked for a name,
// responses give the name's addresses, which seed the non-HTTP flow table
// (WP) and the HTTPS flow table (PC). Both hooks accept every packet.
#include "decode/dns.h"
#include "hooks/common.h"
#include "hooks/flow_exceptions.h"
#include "hooks/hooks.h"
#include "hooks/update_host.h"
#include "linux/in.h"
#include "linux/ip.h"
#include "linux/ipv6.h"
#include "linux/kernel.h"
#include "linux/string.h"
#include "linux/udp.h"
#include "lists/unblock.h"
#include "net/ipv6.h"
#include "track/dns_table.h"
#include "track/pct_table.h"
#include "track/ssl_table.h"
#include "track/tcp_table.h"

#define DNS_PORT 53

static const u8 any_client6[16] = {};

// A flush of HTTPS trust asked for through the unblock list: carried out
// by the first hook to see a packet, in that hook's family only.
static void dns_flush_pending(int ipv6)
{
	if (!get_flush_supending())
		return;
	printk(KERN_DEBUG "[%s]: flush all ssl tracking\n", ipv6 ? "dns6_hook" : "dns_hook");
	if (ipv6)
		ssl6_delete_all(0);
	else
		ssl_delete_all(0);
	set_flush_supending(0);
}

// A query: one entry per client and name, the newest first. IPv6 clients
// are recorded as 0.
static void dns_note_query(struct dns_info *info, __be32 client)
{
	struct dns_entry *e = dns_find(info->name);

	if (e && e->client == client) {
		dns_update_timeout(e);
		return;
	}
	info->client = client;
	dns_add(info);
}

// Seeds the flow tables with one new address of entry e. The address
// family of the slot chooses the tables, not the hook.
static void dns_seed_flows(const struct dns_entry *e, const struct dns_addr *a, int mode)
{
	int v6 = a->family == AF_INET6;
	__be32 addr4;

	memcpy(&addr4, a->addr, sizeof(addr4));
	if (mode & MODE_WP) {
		if (!is_fw_update_host(e->name)) {
			if (v6)
				pct6_add(e->name, a->addr, 0);
			else
				pct_add(e->name, addr4, 0);
		} else if (v6) {
			struct pct6_tracking *rec = pct6_find(a->addr);

			if (rec)
				pct6_update_timeout(rec);
			else
				pct6_add(e->name, a->addr, 1);
		} else {
			struct pct_tracking *rec = pct_find(addr4);

			if (rec)
				pct_update_timeout(rec);
			else
				pct_add(e->name, addr4, 1);
		}
	}
	if (mode & MODE_PC) {
		if (v6)
			ssl6_add(any_client6, a->addr, e->name, STATE_ESTAB);
		else
			ssl_add(e->client, addr4, e->name, STATE_ESTAB);
	}
}

// A response: the most recent query's entry for the name takes the
// addresses, whoever asked. Slots already holding the same address are
// not seeded again.
static void dns_note_response(const struct dns_info *info, int mode, const char *hook)
{
	size_t len = strlen(info->name);
	u32 b = dns_hash(info->name, (int)len);
	struct dns_entry *e = NULL;
	struct list_head *pos;
	int i;

	list_for_each(pos, &dns_table->pool.buckets[b]) {
		struct dns_entry *cur = list_entry(pos, struct dns_entry, node.hash_link);

		if (memcmp(cur->name, info->name, len) == 0) {
			e = cur;
			break;
		}
		printk(KERN_DEBUG "[%s]: Hash [%d] collision with [%s] -- [%s]\n", hook, (int)b,
		       cur->name, info->name);
	}
	if (!e)
		return;
	if (e->state == 0)
		e->state = 1;
	for (i = 0; i < info->count && i < DNS_MAX_ADDRS; i++) {
		const struct dns_addr *a = &info->addrs[i];

		if (a->family != AF_INET && a->family != AF_INET6)
			continue;
		if (memcmp(&e->addrs[i], a, sizeof(*a)) == 0)
			continue;
		memcpy(&e->addrs[i], a, sizeof(*a));
		dns_seed_flows(e, a, mode);
	}
}

// Decodes the message and files it. dport/sport in host order.
static void dns_snoop(const u8 *msg, long len, u16 dport, u16 sport, __be32 client, int mode,
		      const char *hook)
{
	struct dns_info info;

	if (len < DNS_MIN_MESSAGE)
		return;
	memset(&info, 0, sizeof(info));
	if (decode_dns(msg, (int)len, &info) < 0)
		return;
	if (dport == DNS_PORT)
		dns_note_query(&info, client);
	else if (sport == DNS_PORT)
		dns_note_response(&info, mode, hook);
}

static noinline unsigned int dns_hook_on(int mode, struct sk_buff *skb, const struct net_device *in)
{
	const struct udphdr *uh;
	unsigned int ihl, ulen;
	const u8 *msg;

	if (!skb || !in)
		return NF_ACCEPT;
	dns_flush_pending(0);

	// The IP header is linear at this point in a kernel; make sure of it.
	if (!flow_make_linear(skb, sizeof(struct iphdr)))
		return NF_ACCEPT;
	ihl = ip_hdr(skb)->ihl * 4;
	if (ip_hdr(skb)->protocol != IPPROTO_UDP || ihl < sizeof(struct iphdr))
		return NF_ACCEPT;
	if (!flow_make_linear(skb, sizeof(struct udphdr)))
		return NF_ACCEPT;
	// The UDP header lies behind the IP header: read it only inside the data.
	if (!flow_make_linear(skb, ihl + sizeof(struct udphdr)))
		return NF_ACCEPT;
	uh = (const struct udphdr *)(skb_network_header(skb) + ihl);
	ulen = ntohs(uh->len);
	if (ulen < sizeof(struct udphdr) || ulen > skb->len)
		return NF_ACCEPT;
	if (!flow_make_linear(skb, ulen))
		return NF_ACCEPT;
	uh = (const struct udphdr *)(skb_network_header(skb) + ihl);
	if (ntohs(uh->dest) != DNS_PORT && ntohs(uh->source) != DNS_PORT)
		return NF_ACCEPT;
	// The message runs to the end of the linear data, whatever the UDP
	// length says.
	msg = (const u8 *)uh + sizeof(*uh);
	dns_snoop(msg, skb_tail_pointer(skb) - msg, ntohs(uh->dest), ntohs(uh->source),
		  ip_hdr(skb)->saddr, mode, "dns_hook");
	return NF_ACCEPT;
}

unsigned int dns_hook(unsigned int, struct sk_buff *skb, const struct net_device *in,
		      const struct net_device *, int (*)(struct sk_buff *))
{
	int mode = service_mode();

	// Both services off: out before the body's set-up.
	if (!mode)
		return NF_ACCEPT;
	return dns_hook_on(mode, skb, in);
}

static noinline unsigned int dns6_hook_on(int mode, struct sk_buff *skb, const struct net_device *in)
{
	const struct ipv6hdr *ip6h;
	const struct udphdr *uh;
	unsigned int noff;
	u8 nexthdr;
	int off;
	const u8 *msg;

	if (!skb || !in)
		return NF_ACCEPT;
	dns_flush_pending(1);

	noff = skb_network_offset(skb);
	if (skb_headlen(skb) < noff + sizeof(struct ipv6hdr))
		return NF_ACCEPT;
	ip6h = ipv6_hdr(skb);
	if (!(__ipv6_addr_type(&ip6h->saddr) & IPV6_ADDR_UNICAST) ||
	    !(__ipv6_addr_type(&ip6h->daddr) & IPV6_ADDR_UNICAST)) {
		// Named after the hook, whose body this is.
		printk(KERN_DEBUG "[%s]: dns6_hook: IPv6 address is not unicast.\n\n", "dns6_hook");
		return NF_ACCEPT;
	}
	nexthdr = ip6h->nexthdr;
	off = ipv6_skip_exthdr(skb, noff + sizeof(struct ipv6hdr), &nexthdr);
	if (off < 0 || nexthdr != IPPROTO_UDP)
		return NF_ACCEPT;
	// No pull here: a UDP header outside the linear data is not read.
	if (skb_headlen(skb) < (unsigned int)off + sizeof(struct udphdr))
		return NF_ACCEPT;
	uh = (const struct udphdr *)(skb->data + off);
	if (ntohs(uh->dest) != DNS_PORT && ntohs(uh->source) != DNS_PORT)
		return NF_ACCEPT;
	msg = (const u8 *)uh + sizeof(*uh);
	dns_snoop(msg, skb_tail_pointer(skb) - msg, ntohs(uh->dest), ntohs(uh->source), 0, mode,
		  "dns6_hook");
	return NF_ACCEPT;
}

unsigned int dns6_hook(unsigned int, struct sk_buff *skb, const struct net_device *in,
		       const struct net_device *, int (*)(struct sk_buff *))
{
	int mode = service_mode();

	// Both services off: out before the body's set-up.
	if (!mode)
		return NF_ACCEPT;
	return dns6_hook_on(mode, skb, in);
}
