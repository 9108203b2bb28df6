// Routes and their output paths, neighbour references, netlink delivery
// and the log rate limiter.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "kmodel/host.h"
#include "kmodel/net.h"
#include "linux/errno.h"
#include "linux/jiffies.h"
#include "linux/net.h"
#include "net/arp.h"
#include "net/ip6_route.h"
#include "net/ndisc.h"
#include "net/netlink.h"
#include "net/route.h"
#include "sim/netlink_peer.h"
#include "sim/router.h"

// Designated initializers leave the other fields at their defaults.
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"

namespace {

using namespace sim;

// An IPv4 packet in a buffer with room for a link-layer header, routed
// to its destination as a forged packet would be.
struct sk_buff *routed(const Bytes &ip, struct dst_entry *dst)
{
	struct sk_buff *skb = kmodel_skb_build(ip.data(), ip.size(), ip.size(), 32);
	skb->protocol = htons((ip[0] >> 4) == 6 ? ETH_P_IPV6 : ETH_P_IP);
	skb->dev = dst->dev;
	dst_hold(dst);
	skb_dst_set(skb, dst);
	return skb;
}

Bytes packet(const char *dst) { return ip4_tcp(Ip4{ .src = ip4("192.168.1.10"), .dst = ip4(dst) }, Tcp{}); }

TEST(Route, LookupAndOutputPaths)
{
	Router r;
	struct neighbour *gw = r.neighbour("203.0.113.1", r.wan(), kGatewayMac, NUD_REACHABLE, r.now());
	struct dst_entry *hh = r.route("0.0.0.0/0", r.wan(), KMODEL_OUT_HH, &kGatewayMac);
	struct dst_entry *nb = r.route("198.51.100.0/24", r.wan(), KMODEL_OUT_NEIGH, nullptr, gw);
	struct dst_entry *bare = r.route("198.51.100.7", r.wan(), KMODEL_OUT_NONE);
	EXPECT_EQ(2, kmodel_neigh_refs(gw)); // the table's and the route's

	// Longest prefix wins; each look-up takes a reference.
	struct flowi fl = {};
	struct rtable *rt = nullptr;
	for (auto [to, want] : { std::pair{ "198.51.100.7", bare }, { "198.51.100.8", nb }, { "8.8.8.8", hh } }) {
		fl.fl4_dst = ip4(to);
		ASSERT_EQ(0, ip_route_output_key(&init_net, &rt, &fl));
		EXPECT_EQ(want, &rt->dst) << to;
		EXPECT_EQ(1, kmodel_dst_refs(want)) << to;
	}
	EXPECT_EQ(ip4("8.8.8.8"), kmodel_route_last_flowi(AF_INET).fl4_dst);

	// Header cache: 16 bytes before the data, 14 pushed, to the device.
	EXPECT_EQ(0, dst_output(routed(packet("8.8.8.8"), hh)));
	// Neighbour: the header is built from the neighbour's address.
	EXPECT_EQ(0, dst_output(routed(packet("198.51.100.8"), nb)));
	// Neither: dropped with -EINVAL.
	EXPECT_EQ(-EINVAL, dst_output(routed(packet("198.51.100.7"), bare)));

	ASSERT_EQ(2u, r.sent().size());
	EXPECT_EQ(ether(kGatewayMac, kWanMac, packet("8.8.8.8")), r.sent()[0].frame);
	EXPECT_EQ("eth0", r.sent()[0].dev);
	EXPECT_EQ(0x0800, r.sent()[0].protocol);
	EXPECT_EQ(ether(kGatewayMac, kWanMac, packet("198.51.100.8")), r.sent()[1].frame);
	// The buffers' references went with them; the look-ups' remain.
	for (struct dst_entry *d : { hh, nb, bare })
		EXPECT_EQ(1, kmodel_dst_refs(d));
	EXPECT_EQ(0, kmodel_skb_stats_get().live);
	EXPECT_GT(kmodel_bh_sections(), 0);
	EXPECT_EQ(0, kmodel_bh_depth());

	// No route: the error, no reference.
	kmodel_reset();
	fl.fl4_dst = ip4("8.8.8.8");
	EXPECT_EQ(-ENETUNREACH, ip_route_output_key(&init_net, &rt, &fl));
	EXPECT_DEATH(dst_release(kmodel_route6_null_entry()), "BUG");
}

TEST(Route, Ipv6RoutesAndTheNullEntry)
{
	Router r;
	struct dst_entry *d = r.route("2606:2800::/24", r.wan(), KMODEL_OUT_HH, &kGatewayMac);
	struct flowi fl = {};
	memcpy(&fl.fl6_dst, ip6("2606:2800:220:1::1").data(), 16);
	struct dst_entry *got = ip6_route_output(&init_net, nullptr, &fl);
	EXPECT_EQ(d, got);
	EXPECT_EQ(0, got->error);
	EXPECT_EQ(r.wan(), got->dev);

	Bytes p = ip6_tcp(Ip6{ .src = ip6("2001:db8::1"), .dst = ip6("2606:2800:220:1::1") }, Tcp{});
	EXPECT_EQ(0, dst_output(routed(p, got)));
	ASSERT_EQ(1u, r.sent().size());
	EXPECT_EQ(ether(kGatewayMac, kWanMac, p), r.sent()[0].frame);

	// Nothing matches: a referenced entry whose error is set.
	memcpy(&fl.fl6_dst, ip6("2001:db8::9").data(), 16);
	got = ip6_route_output(&init_net, nullptr, &fl);
	ASSERT_NE(nullptr, got);
	EXPECT_EQ(-ENETUNREACH, got->error);
	EXPECT_EQ(1, kmodel_dst_refs(got));
	kmodel_route6_return_null(true);
	EXPECT_EQ(nullptr, ip6_route_output(&init_net, nullptr, &fl));
}

TEST(Neighbour, ReferencesQueueingAndDestruction)
{
	Router r;
	uint32_t used = r.now() - 500;
	struct neighbour *n = r.neighbour("192.168.1.10", r.br0(), kClientMac, NUD_STALE, used);
	__be32 key = ip4("192.168.1.10");

	EXPECT_EQ(nullptr, neigh_lookup(&arp_tbl, &key, r.wan())); // other device
	EXPECT_EQ(nullptr, neigh_lookup(&nd_tbl, &key, r.br0()));  // other table
	struct neighbour *got = neigh_lookup(&arp_tbl, &key, r.br0());
	ASSERT_EQ(n, got);
	EXPECT_EQ(2, kmodel_neigh_refs(n));
	EXPECT_EQ(used, got->used);
	EXPECT_TRUE(got->nud_state & NUD_VALID);
	EXPECT_EQ(0, memcmp(got->ha, kClientMac.data(), 6));
	neigh_release(got);
	EXPECT_EQ(1, kmodel_neigh_refs(n));

	// Unresolved: packets wait (three at most) and leave on resolution.
	struct neighbour *w = r.neighbour("198.51.100.1", r.wan(), Mac{}, NUD_NONE, r.now());
	struct dst_entry *d = r.route("198.51.100.0/24", r.wan(), KMODEL_OUT_NEIGH, nullptr, w);
	for (int i = 0; i < 4; i++)
		EXPECT_EQ(0, dst_output(routed(packet("198.51.100.9"), d)));
	EXPECT_EQ(3u, kmodel_neigh_queued(w));
	EXPECT_TRUE(r.sent().empty());
	kmodel_neigh_update(w, kGatewayMac.data(), NUD_REACHABLE);
	EXPECT_EQ(3u, r.sent().size());
	EXPECT_EQ(0, kmodel_skb_stats_get().live);

	// The entry goes with its last reference, not before.
	got = neigh_lookup(&arp_tbl, &key, r.br0());
	kmodel_neigh_remove(n);
	EXPECT_EQ(0, kmodel_neigh_destroyed());
	EXPECT_EQ(nullptr, neigh_lookup(&arp_tbl, &key, r.br0()));
	neigh_release(got);
	EXPECT_EQ(1, kmodel_neigh_destroyed());
	EXPECT_FALSE(kmodel_neigh_alive(n));
	// Releasing a live entry's table reference is a bug.
	struct neighbour *x = r.neighbour("192.168.1.11", r.br0(), kClientMac, NUD_REACHABLE, 0);
	EXPECT_DEATH(neigh_release(x), "BUG");
}

std::vector<std::string> g_seen;

void record_input(struct sk_buff *skb)
{
	struct nlmsghdr *h = nlmsg_hdr(skb);
	g_seen.push_back(std::to_string(skb->len) + " pid=" + std::to_string(NETLINK_CB(skb).pid) +
			 " type=" + std::to_string(h->nlmsg_type) + " live=" +
			 std::to_string(kmodel_skb_is_live(skb)));
}

struct sk_buff *message(u16 type, const char *text)
{
	size_t len = strlen(text);
	struct sk_buff *skb = alloc_skb(NLMSG_SPACE(len), GFP_ATOMIC);
	struct nlmsghdr *h = (struct nlmsghdr *)skb_put(skb, NLMSG_SPACE(len));
	memset(h, 0, NLMSG_SPACE(len));
	h->nlmsg_len = NLMSG_LENGTH(len);
	h->nlmsg_type = type;
	memcpy(NLMSG_DATA(h), text, len);
	NETLINK_CB(skb).pid = 0;
	NETLINK_CB(skb).dst_group = 1;
	return skb;
}

TEST(Netlink, KernelSocketBroadcastAndInput)
{
	kmodel_reset();
	g_seen.clear();
	// Creation failure is injectable; one kernel socket per unit.
	kmodel_fail_netlink_create_nth(1);
	EXPECT_EQ(nullptr, netlink_kernel_create(&init_net, NETLINK_USERSOCK, 0, record_input, NULL, NULL));
	struct sock *sk = netlink_kernel_create(&init_net, NETLINK_USERSOCK, 0, record_input, NULL, NULL);
	ASSERT_NE(nullptr, sk);
	EXPECT_EQ(nullptr, netlink_kernel_create(&init_net, NETLINK_USERSOCK, 0, record_input, NULL, NULL));
	EXPECT_EQ(sk, sk->sk_socket->sk);

	// Nobody listens yet: -ESRCH, and the buffer is consumed anyway.
	EXPECT_EQ(-ESRCH, netlink_broadcast(sk, message(0, "hello"), 0, 1, GFP_ATOMIC));
	EXPECT_EQ(0, kmodel_skb_stats_get().live);
	{
		NetlinkPeer daemon(NETLINK_USERSOCK, 100, 1);
		NetlinkPeer other_group(NETLINK_USERSOCK, 101, 2);
		NetlinkPeer other_unit(NETLINK_ROUTE, 102, 1);
		EXPECT_EQ(0, netlink_broadcast(sk, message(0, "hello"), 0, 1, GFP_ATOMIC));
		auto got = daemon.read();
		ASSERT_EQ(1u, got.size());
		EXPECT_EQ(NLMSG_SPACE(5), got[0].bytes.size());
		EXPECT_EQ(1u, got[0].dst_group);
		EXPECT_EQ(Bytes({'h', 'e', 'l', 'l', 'o'}), Bytes(got[0].bytes.begin() + 16, got[0].bytes.begin() + 21));
		EXPECT_TRUE(other_group.read().empty());
		EXPECT_TRUE(other_unit.read().empty());
		// A full receive queue loses the message: -ENOBUFS.
		daemon.set_rcvbuf(0);
		EXPECT_EQ(-ENOBUFS, netlink_broadcast(sk, message(0, "x"), 0, 1, GFP_ATOMIC));

		// The daemon's send reaches the input callback as a live buffer
		// that the netlink layer frees afterwards.
		const char payload[] = "verdict";
		EXPECT_EQ(16 + 7, daemon.send(9, payload, 7));
		ASSERT_EQ(1u, g_seen.size());
		EXPECT_EQ("23 pid=100 type=9 live=1", g_seen[0]);
		EXPECT_EQ(0, kmodel_skb_stats_get().live);
	}
	sock_release(sk->sk_socket);
	EXPECT_EQ(0, kmodel_netlink_kernel_sockets());
	NetlinkPeer late(NETLINK_USERSOCK, 100, 1);
	EXPECT_EQ(-ECONNREFUSED, late.send(0, "x", 1));
}

TEST(Ratelimit, BurstAndWindow)
{
	kmodel_reset();
	int allowed = 0;
	for (int i = 0; i < 15; i++)
		allowed += net_ratelimit();
	EXPECT_EQ(10, allowed);
	EXPECT_TRUE(kmodel_log().empty());
	kmodel_advance_jiffies(5 * HZ); // the window is still open at its end
	EXPECT_EQ(0, net_ratelimit());
	kmodel_advance_jiffies(1);
	EXPECT_EQ(1, net_ratelimit());
	EXPECT_EQ(std::vector<std::string>{"<4>net_ratelimit: 6 callbacks suppressed\n"}, kmodel_log());
	kmodel_net_ratelimit_set(0, 0);
	for (int i = 0; i < 100; i++)
		ASSERT_EQ(1, net_ratelimit());
}

} // namespace
