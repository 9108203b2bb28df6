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

TEST(Ipv6SkipExthdr, Chains)
{
	kmodel_reset();
	Tcp t;
	t.payload = Bytes(10, 'a');
	// No extension header.
	Skip s = skip(ip6_tcp(base({}), t));
	EXPECT_EQ(40, s.off);
	EXPECT_EQ(6, s.nexthdr);
	// Hop-by-hop (8), destination options (16), routing (24), then TCP.
	Bytes p = ip6_tcp(base({{0, Bytes(6)}, {60, Bytes(14)}, {43, Bytes(22)}}), t);
	s = skip(p);
	EXPECT_EQ(40 + 8 + 16 + 24, s.off);
	EXPECT_EQ(6, s.nexthdr);
	// The same with the chain in the non-linear part.
	s = skip(p, 44);
	EXPECT_EQ(88, s.off);
	EXPECT_EQ(6, s.nexthdr);
	// AH counts its length in 4-byte units: 12 + 4 bytes here.
	s = skip(ip6_udp(base({{51, Bytes(14)}}), Udp{}));
	EXPECT_EQ(40 + 16, s.off);
	EXPECT_EQ(17, s.nexthdr);
	// A first fragment (offset 0, more set) is skipped as 8 bytes.
	s = skip(ip6_tcp(base({{44, frag6_body(0, true, 7)}}), t));
	EXPECT_EQ(48, s.off);
	EXPECT_EQ(6, s.nexthdr);
	// A later fragment stops at the fragment header.
	s = skip(ip6_tcp(base({{0, Bytes(6)}, {44, frag6_body(3, false, 7)}}), t));
	EXPECT_EQ(48, s.off);
	EXPECT_EQ(44, s.nexthdr);
	// "No next header" ends the walk with -1.
	Bytes none = ip6_tcp(base({{60, Bytes(6)}}), t);
	none[40] = 59;
	EXPECT_EQ(-1, skip(none).off);
	EXPECT_EQ(-1, skip(ip6_tcp(base({{0, Bytes(6)}, {59, Bytes(6)}}), t)).off);
}

TEST(Ipv6SkipExthdr, TruncatedPackets)
{
	kmodel_reset();
	Tcp t;
	Bytes p = ip6_tcp(base({{0, Bytes(6)}, {60, Bytes(14)}}), t);
	// Cut inside the second header's first two bytes: unreadable, -1.
	EXPECT_EQ(-1, skip(Bytes(p.begin(), p.begin() + 48)).off);
	EXPECT_EQ(-1, skip(Bytes(p.begin(), p.begin() + 49)).off);
	// Its first two bytes are there: the walk goes on past the end and
	// reports the offset; callers compare it with the packet length.
	Skip s = skip(Bytes(p.begin(), p.begin() + 50));
	EXPECT_EQ(64, s.off);
	EXPECT_EQ(6, s.nexthdr);
	// A fragment header cut before its offset field.
	Bytes f = ip6_tcp(base({{44, frag6_body(0, false, 1)}}), t);
	EXPECT_EQ(-1, skip(Bytes(f.begin(), f.begin() + 43)).off);
	// A bare fixed header with an extension header announced.
	Bytes bare(p.begin(), p.begin() + 40);
	EXPECT_EQ(-1, skip(bare).off);
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
