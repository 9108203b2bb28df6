// Output routes for forged IPv4 and IPv6 segments. The network header of
// a forged packet is at the start of its data.
#include "forge/route.h"

#include "linux/if_ether.h"
#include "linux/ip.h"
#include "linux/ipv6.h"
#include "net/ip6_route.h"
#include "net/ipv6.h"
#include "net/net_namespace.h"
#include "net/route.h"

int route_packet(struct sk_buff *skb)
{
	struct iphdr *iph = (struct iphdr *)skb->data;
	struct rtable *rt;
	struct flowi fl;

	memset(&fl, 0, sizeof(fl));
	fl.fl4_dst = iph->daddr;
	fl.fl4_tos = IPTOS_TOS(iph->tos);
	if (ip_route_output_key(&init_net, &rt, &fl) < 0)
		return -1;

	skb_dst_drop(skb);
	skb_dst_set(skb, &rt->dst);
	skb->protocol = htons(ETH_P_IP);
	skb->dev = rt->dst.dev;
	return 0;
}

int route_packet6(struct sk_buff *skb, struct tcphdr *th)
{
	struct ipv6hdr *ip6h = (struct ipv6hdr *)skb->data;
	struct dst_entry *dst;
	struct flowi fl;

	memset(&fl, 0, sizeof(fl));
	ipv6_addr_copy(&fl.fl6_dst, &ip6h->daddr);
	ipv6_addr_copy(&fl.fl6_src, &ip6h->saddr);
	fl.fl_ip_sport = th->source;
	fl.fl_ip_dport = th->dest;

	dst = ip6_route_output(&init_net, NULL, &fl);
	if (!dst) {
		printk(KERN_DEBUG "[%s]: dst == NULL\n", __func__);
		return -1;
	}
	// The failed route keeps the reference the look-up took.
	if (dst->error) {
		printk(KERN_DEBUG "[%s]: dst->error\n", __func__);
		return -1;
	}

	skb_dst_drop(skb);
	skb_dst_set(skb, dst);
	skb->protocol = htons(ETH_P_IPV6);
	skb->dev = dst->dev;
	return 0;
}
