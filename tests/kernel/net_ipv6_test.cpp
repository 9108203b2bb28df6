// ipv6_skip_exthdr over extension-header chains and truncated packets;
// __ipv6_addr_type's classification.
#include <gtest/gtest.h>

#include <arpa/inet.h>

#include "kmodel/host.h"
#include "kmodel/net.h"
#include "net/ipv6.h"
#include "sim/packet.h"

namespace {

using namespace sim;

struct Skip {
	int off;
	int nexthdr;
};

Skip skip(const Bytes &p, size_t linear = SIZE_MAX)
{
	struct sk_buff *skb = kmodel_skb_build(p.data(), p.size(), linear);
	u8 nh = p[6];
	int off = ipv6_skip_exthdr(skb, 40, &nh);
	kfree_skb(skb);
	return {off, nh};
}

Ip6 base(std::vector<Ext6> ext)
{
	Ip6 ip;
	ip.src = ip6("2001:db8::1");
	ip.dst = ip6("2001:db8::2");
	ip.ext = std::move(ext);
	return ip;
}

TEST(Ipv6SkipExthdr, ChainsAndTruncatedPackets)
{
	kmodel_reset();
	Tcp t;
	t.payload = Bytes(10, 'a');
	Bytes chain = ip6_tcp(base({{0, Bytes(6)}, {60, Bytes(14)}, {43, Bytes(22)}}), t);
	Bytes none = ip6_tcp(base({{60, Bytes(6)}}), t);
	none[40] = 59;
	Bytes two = ip6_tcp(base({{0, Bytes(6)}, {60, Bytes(14)}}), Tcp{});
	Bytes frag = ip6_tcp(base({{44, frag6_body(0, false, 1)}}), Tcp{});
	auto cut = [](const Bytes &p, size_t n) { return Bytes(p.begin(), p.begin() + n); };
	struct { const char *what; Bytes p; size_t linear; int off, nexthdr; } cases[] = {
		{ "no extension header", ip6_tcp(base({}), t), SIZE_MAX, 40, 6 },
		{ "hop-by-hop 8, destination 16, routing 24", chain, SIZE_MAX, 88, 6 },
		{ "the same in the non-linear part", chain, 44, 88, 6 },
		{ "AH counts 4-byte units: 12 + 4", ip6_udp(base({{51, Bytes(14)}}), Udp{}), SIZE_MAX, 56, 17 },
		{ "first fragment skipped as 8 bytes", ip6_tcp(base({{44, frag6_body(0, true, 7)}}), t), SIZE_MAX, 48, 6 },
		{ "later fragment stops at its header", ip6_tcp(base({{0, Bytes(6)}, {44, frag6_body(3, false, 7)}}), t),
		  SIZE_MAX, 48, 44 },
		{ "no next header", none, SIZE_MAX, -1, -1 },
		{ "no next header after hop-by-hop", ip6_tcp(base({{0, Bytes(6)}, {59, Bytes(6)}}), t), SIZE_MAX, -1, -1 },
		// Cut inside the second header's first two bytes: unreadable.
		{ "cut at 48", cut(two, 48), SIZE_MAX, -1, -1 },
		{ "cut at 49", cut(two, 49), SIZE_MAX, -1, -1 },
		// Its first two bytes are there: the walk goes on past the end and
		// reports the offset; callers compare it with the packet length.
		{ "cut at 50", cut(two, 50), SIZE_MAX, 64, 6 },
		{ "fragment header cut before its offset", cut(frag, 43), SIZE_MAX, -1, -1 },
		{ "bare fixed header announcing a header", cut(two, 40), SIZE_MAX, -1, -1 },
	};
	for (auto &c : cases) {
		Skip s = skip(c.p, c.linear);
		EXPECT_EQ(c.off, s.off) << c.what;
		if (c.off >= 0) {
			EXPECT_EQ(c.nexthdr, s.nexthdr) << c.what;
		}
	}
	EXPECT_EQ(0, kmodel_skb_stats_get().live);
}

TEST(Ipv6AddrType, Classification)
{
	struct {
		const char *addr;
		int type;
	} cases[] = {
		{"2001:db8::1", 0x000e0001},       // global unicast
		{"fe80::1", 0x00020021},           // link-local unicast
		{"fec0::1", 0x00050041},           // site-local unicast
		{"fc00::1", 0x000e0001},           // unique local
		{"ff02::1", 0x00020022},           // link-local multicast
		{"ff01::1", 0x00010012},           // node-local multicast
		{"ff0e::1", 0x000e0002},           // global multicast
		{"::", 0x00000000},                // any
		{"::1", 0x00020011},               // loopback
		{"::1.2.3.4", 0x000e0081},         // v4-compatible
		{"::ffff:1.2.3.4", 0x000e1000},    // v4-mapped: not unicast
		{"100::1", 0x000e2000},            // reserved
		{"e000::1", 0x000e2000},           // reserved
	};
	for (auto &c : cases) {
		struct in6_addr a;
		ASSERT_EQ(1, inet_pton(AF_INET6, c.addr, &a));
		EXPECT_EQ(c.type, __ipv6_addr_type(&a)) << c.addr;
		EXPECT_EQ(c.type & 0xffff, ipv6_addr_type(&a)) << c.addr;
	}
}

} // namespace
