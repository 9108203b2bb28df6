// IPv4 and IPv6 routes the host installs, their look-ups and the
// link-layer output at the end of a route (header cache or neighbour).
#include <stdlib.h>
#include <vector>

#include "kmodel/live.h"
#include "kmodel/net.h"
#include "kmodel/state.h"
#include "linux/errno.h"
#include "linux/interrupt.h"
#include "linux/jiffies.h"
#include "net/ip6_route.h"
#include "net/neighbour.h"
#include "net/route.h"

namespace {

struct route {
	int family;
	u8 prefix[16];
	int plen;
	struct dst_entry *dst;
};

std::vector<route> g_routes;
struct rt6_info *g_null6;
bool g_return_null6;
struct flowi g_last_flowi[2];

bool prefix_match(const u8 *a, const u8 *b, int plen)
{
	int bytes = plen / 8, bits = plen % 8;

	if (memcmp(a, b, bytes) != 0)
		return false;
	if (bits == 0)
		return true;
	u8 mask = (u8)(0xff << (8 - bits));
	return (a[bytes] & mask) == (b[bytes] & mask);
}

struct dst_entry *lookup(int family, const u8 *addr)
{
	struct dst_entry *best = NULL;
	int best_len = -1;

	for (const route &r : g_routes)
		if (r.family == family && r.plen > best_len && prefix_match(r.prefix, addr, r.plen)) {
			best = r.dst;
			best_len = r.plen;
		}
	return best;
}

// The end of every route: what ip_finish_output2 / ip6_output_finish do.
int route_link_output(struct sk_buff *skb)
{
	struct dst_entry *dst = skb_dst(skb);

	if (dst->hh) {
		struct hh_cache *hh = dst->hh;
		local_bh_disable();
		unsigned int hh_alen = HH_DATA_ALIGN(hh->hh_len);
		memcpy(skb->data - hh_alen, hh->hh_data, hh_alen);
		local_bh_enable();
		skb_push(skb, hh->hh_len);
		return hh->hh_output(skb);
	}
	if (dst->neighbour)
		return dst->neighbour->output(skb);
	kfree_skb(skb);
	return -EINVAL;
}

int discard_output(struct sk_buff *skb)
{
	kfree_skb(skb);
	return -ENETUNREACH;
}

struct dst_entry *dst_new(size_t size, struct net_device *dev, kmodel_route_out out, __be16 proto,
			  const uint8_t *ha, struct neighbour *neigh)
{
	struct dst_entry *dst = (struct dst_entry *)calloc(1, size);

	BUG_ON(dst == NULL);
	dst->dev = dev;
	dst->output = route_link_output;
	dst->path = dst;
	if (out == KMODEL_OUT_HH) {
		BUG_ON(ha == NULL);
		struct hh_cache *hh = (struct hh_cache *)calloc(1, sizeof(*hh));
		BUG_ON(hh == NULL);
		atomic_set(&hh->hh_refcnt, 1);
		hh->hh_type = proto;
		hh->hh_len = ETH_HLEN;
		hh->hh_output = dev_queue_xmit;
		struct ethhdr *eth = (struct ethhdr *)((u8 *)hh->hh_data + HH_DATA_OFF(ETH_HLEN));
		memcpy(eth->h_dest, ha, ETH_ALEN);
		memcpy(eth->h_source, dev->dev_addr, ETH_ALEN);
		eth->h_proto = proto;
		dst->hh = hh;
	} else if (out == KMODEL_OUT_NEIGH) {
		BUG_ON(neigh == NULL);
		dst->neighbour = neigh_clone(neigh);
	}
	return dst;
}

} // namespace

void dst_release(struct dst_entry *dst)
{
	if (!dst)
		return;
	int newrefcnt = __atomic_sub_fetch(&dst->__refcnt.counter, 1, __ATOMIC_SEQ_CST);
	BUG_ON(newrefcnt < 0); // released more often than held
}

int ip_route_output_key(struct net *net, struct rtable **rp, struct flowi *flp)
{
	(void)net;
	g_last_flowi[0] = *flp;
	kmodel_route_fn host = kmodel_route_fn_get();
	if (host) {
		struct dst_entry *dst = host(AF_INET, flp);
		if (!dst)
			return -ENETUNREACH;
		*rp = (struct rtable *)dst;
		return 0;
	}
	struct dst_entry *dst = lookup(AF_INET, (const u8 *)&flp->fl4_dst);

	if (!dst)
		return -ENETUNREACH;
	dst_hold(dst);
	dst->__use++;
	dst->lastuse = jiffies;
	*rp = (struct rtable *)dst;
	return 0;
}

struct dst_entry *ip6_route_output(struct net *net, struct sock *sk, struct flowi *fl)
{
	(void)net;
	(void)sk;
	g_last_flowi[1] = *fl;
	if (g_return_null6)
		return NULL;
	kmodel_route_fn host = kmodel_route_fn_get();
	if (host) {
		struct dst_entry *dst = host(AF_INET6, fl);
		if (dst)
			return dst;
		dst = kmodel_route6_null_entry();
		dst_hold(dst);
		return dst;
	}
	struct dst_entry *dst = lookup(AF_INET6, fl->fl6_dst.s6_addr);

	if (!dst)
		dst = kmodel_route6_null_entry();
	dst_hold(dst);
	dst->__use++;
	dst->lastuse = jiffies;
	return dst;
}

struct dst_entry *kmodel_route_add(__be32 daddr, int prefix_len, struct net_device *dev,
				   kmodel_route_out out, const uint8_t *ha, struct neighbour *neigh)
{
	BUG_ON(prefix_len < 0 || prefix_len > 32);
	struct rtable *rt = (struct rtable *)dst_new(sizeof(struct rtable), dev, out, htons(ETH_P_IP),
						     ha, neigh);
	rt->rt_dst = daddr;
	route r = {AF_INET, {}, prefix_len, &rt->dst};
	memcpy(r.prefix, &daddr, 4);
	g_routes.push_back(r);
	return &rt->dst;
}

struct dst_entry *kmodel_route6_add(const struct in6_addr *daddr, int prefix_len,
				    struct net_device *dev, kmodel_route_out out, const uint8_t *ha,
				    struct neighbour *neigh)
{
	BUG_ON(prefix_len < 0 || prefix_len > 128);
	struct rt6_info *rt = (struct rt6_info *)dst_new(sizeof(struct rt6_info), dev, out,
							 htons(ETH_P_IPV6), ha, neigh);
	rt->rt6i_dst = *daddr;
	rt->rt6i_dst_plen = prefix_len;
	route r = {AF_INET6, {}, prefix_len, &rt->dst};
	memcpy(r.prefix, daddr, 16);
	g_routes.push_back(r);
	return &rt->dst;
}

struct dst_entry *kmodel_dst_new(int family, struct net_device *dev, kmodel_route_out out,
				 const uint8_t *ha, struct neighbour *neigh)
{
	if (family == AF_INET6)
		return dst_new(sizeof(struct rt6_info), dev, out, htons(ETH_P_IPV6), ha, neigh);
	return dst_new(sizeof(struct rtable), dev, out, htons(ETH_P_IP), ha, neigh);
}

void kmodel_dst_free(struct dst_entry *dst)
{
	if (!dst)
		return;
	BUG_ON(atomic_read(&dst->__refcnt) != 0);
	if (dst->neighbour)
		neigh_release(dst->neighbour);
	free(dst->hh);
	free(dst);
}

struct dst_entry *kmodel_route6_null_entry(void)
{
	if (!g_null6) {
		static const uint8_t zero[6] = {0};
		struct net_device *lo = kmodel_dev_find("lo");
		if (!lo)
			lo = kmodel_dev_add("lo", zero);
		g_null6 = (struct rt6_info *)calloc(1, sizeof(*g_null6));
		BUG_ON(g_null6 == NULL);
		g_null6->dst.dev = lo;
		g_null6->dst.error = -ENETUNREACH;
		g_null6->dst.output = discard_output;
		g_null6->dst.input = discard_output;
		g_null6->dst.path = &g_null6->dst;
	}
	return &g_null6->dst;
}

void kmodel_route6_return_null(bool on) { g_return_null6 = on; }
int kmodel_dst_refs(const struct dst_entry *dst) { return atomic_read(&dst->__refcnt); }
const struct flowi &kmodel_route_last_flowi(int family) { return g_last_flowi[family == AF_INET6]; }

void kmodel_route_reset(void)
{
	for (route &r : g_routes) {
		free(r.dst->hh);
		free(r.dst);
	}
	g_routes.clear();
	free(g_null6);
	g_null6 = NULL;
	g_return_null6 = false;
	memset(g_last_flowi, 0, sizeof(g_last_flowi));
}
