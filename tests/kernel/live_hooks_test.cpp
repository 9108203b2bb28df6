// The host callbacks a real host installs (kmodel/live.h): route and
// neighbour look-ups answered by the host, transmission handed to it.
#include <gtest/gtest.h>

#include <vector>

#include "kmodel/host.h"
#include "kmodel/live.h"
#include "kmodel/net.h"
#include "linux/errno.h"
#include "linux/netdevice.h"
#include "net/arp.h"
#include "net/ip6_route.h"
#include "net/neighbour.h"
#include "net/net_namespace.h"
#include "net/route.h"

namespace {

struct Host {
	std::vector<int> route_families;
	struct dst_entry *route = nullptr; // handed out with a reference
	std::vector<std::vector<uint8_t>> frames;
	int xmit_rc = 0;
	int neigh_calls = 0;
};
Host *g_host;

class LiveHooks : public testing::Test {
protected:
	void SetUp() override
	{
		kmodel_reset();
		g_host = &host;
		static const uint8_t mac[6] = {2, 0, 0, 0, 0, 1};
		dev = kmodel_dev_add("wan0", mac);
		kmodel_set_route_fn([](int family, const struct flowi *) -> struct dst_entry * {
			g_host->route_families.push_back(family);
			if (g_host->route)
				dst_hold(g_host->route);
			return g_host->route;
		});
		kmodel_set_xmit_fn([](const struct sk_buff *skb) {
			g_host->frames.push_back(kmodel_skb_bytes(skb));
			return g_host->xmit_rc;
		});
	}
	void TearDown() override
	{
		kmodel_set_route_fn(nullptr);
		kmodel_set_neigh_fn(nullptr);
		kmodel_set_xmit_fn(nullptr);
		kmodel_reset();
	}
	Host host;
	struct net_device *dev = nullptr;
};

TEST_F(LiveHooks, RouteLookupsAskTheHost)
{
	struct flowi fl = {};
	struct rtable *rt = nullptr;
	EXPECT_EQ(-ENETUNREACH, ip_route_output_key(&init_net, &rt, &fl)); // the host has none
	struct dst_entry *null6 = ip6_route_output(&init_net, nullptr, &fl);
	EXPECT_EQ(null6, kmodel_route6_null_entry());
	EXPECT_NE(0, null6->error);
	dst_release(null6);

	static const uint8_t gw[6] = {0, 0xaa, 0xbb, 0xcc, 0xdd, 0xee};
	host.route = kmodel_dst_new(AF_INET, dev, KMODEL_OUT_HH, gw);
	ASSERT_EQ(0, ip_route_output_key(&init_net, &rt, &fl));
	EXPECT_EQ(&rt->dst, host.route);
	EXPECT_EQ(dev, rt->dst.dev);
	EXPECT_EQ(1, kmodel_dst_refs(host.route)); // the caller's reference
	ip_rt_put(rt);
	EXPECT_EQ(0, kmodel_dst_refs(host.route));
	EXPECT_EQ((std::vector<int>{AF_INET, AF_INET6, AF_INET}), host.route_families);
	kmodel_dst_free(host.route);
	host.route = nullptr;
}

TEST_F(LiveHooks, TransmittedFramesGoToTheHostWithItsResult)
{
	static const uint8_t gw[6] = {0, 0xaa, 0xbb, 0xcc, 0xdd, 0xee};
	const uint8_t payload[] = {0x45, 0, 0, 20};
	for (int rc : {0, -ENOBUFS}) {
		host.xmit_rc = rc;
		host.frames.clear();
		struct dst_entry *dst = kmodel_dst_new(AF_INET, dev, KMODEL_OUT_HH, gw);
		struct sk_buff *skb = kmodel_skb_build(payload, sizeof(payload), sizeof(payload));
		skb->dev = dev;
		skb_dst_set(skb, dst_clone(dst));
		long live = kmodel_skb_stats_get().live;
		EXPECT_EQ(rc, dst_output(skb)) << rc; // header cache, then dev_queue_xmit
		EXPECT_EQ(live - 1, kmodel_skb_stats_get().live) << "consumed either way";
		ASSERT_EQ(1u, host.frames.size());
		std::vector<uint8_t> want = {0, 0xaa, 0xbb, 0xcc, 0xdd, 0xee, 2, 0, 0, 0, 0, 1, 0x08, 0x00, 0x45, 0, 0, 20};
		EXPECT_EQ(want, host.frames[0]) << rc;
		EXPECT_TRUE(kmodel_tx_log().empty()) << "nothing captured while a host transmits";
		kmodel_dst_free(dst);
	}
}

TEST_F(LiveHooks, NeighbourLookupsLetTheHostSyncFirst)
{
	kmodel_set_neigh_fn([](struct neigh_table *tbl, const void *key, struct net_device *d) {
		g_host->neigh_calls++;
		static const uint8_t mac[6] = {0, 0x11, 0x22, 0x33, 0x44, 0x55};
		kmodel_neigh_add(tbl, key, d, mac, NUD_REACHABLE, 0);
	});
	const uint8_t addr[4] = {10, 0, 0, 2};
	struct neighbour *n = neigh_lookup(&arp_tbl, addr, dev);
	ASSERT_NE(nullptr, n);
	EXPECT_EQ(1, host.neigh_calls);
	EXPECT_EQ(NUD_REACHABLE, n->nud_state);
	EXPECT_EQ(0x55, n->ha[5]);
	EXPECT_EQ(2, kmodel_neigh_refs(n)); // the table's and the look-up's
	neigh_release(n);
}

} // namespace
