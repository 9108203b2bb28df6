// The non-HTTP flow hooks of WP: what they leave alone, how they pick the
// server, what they ask the daemon, and the IPv6 port filter; whole flows
// after dig's lookups (captured from dnsmasq), held, rated, passed or dropped.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/hooks/fixture.h"

#include "linux/slab.h"

using namespace hooks_test;

namespace {

class PctHook : public HookTest {
protected:
	void SetUp() override
	{
		HookTest::SetUp();
		services(true, false);
	}
};

} // namespace

// Twelve bytes are no DNS message; the UDP length may reach the end of the
// IP packet, not beyond; a datagram or segment without its whole header is
// dropped. Headers outside the linear area are pulled in and read (the UDP
// length is made linear from the IP header). br1, "br10" (three characters
// decide) and a packet out by the device it came in on are not filtered.
TEST_F(PctHook, DnsHttpAndTheSecondBridgeAreLeftAlone)
{
	auto udp_len = [](int extra) {
		sim::Ip4 ip;
		ip.src = sim::ip4(kClient), ip.dst = sim::ip4(kResolver);
		sim::Udp u;
		u.sport = 40001, u.dport = 53, u.payload = Bytes(20), u.length_override = 8 + 20 + extra;
		return sim::ip4_udp(ip, u);
	};
	auto cut = [](Bytes p) {
		p.resize(24);
		p[2] = 0, p[3] = 24;
		return p;
	};
	const uint8_t m[6] = { 2, 0, 0, 0, 0, 9 };
	struct net_device *br0 = r.br0(), *br1 = r.br1(), *wan = r.wan(), *br10 = kmodel_dev_add("br10", m);
	const Bytes tls = tcp(kClient, kServer, 40000, 443), dns40 = udp(kClient, kResolver, 40001, 53, Bytes(40));
	const Bytes http = tcp(kClient, kServer, 40000, 80);
	const size_t all = SIZE_MAX;
	struct { Bytes p; struct net_device *in, *out; size_t linear; bool pass; } rows[] = {
		{ udp(kClient, kResolver, 40001, 53, Bytes(13)), br0, wan, all, true },
		{ udp(kResolver, kClient, 53, 40001, Bytes(13)), wan, br0, all, true },
		{ udp(kClient, kResolver, 40001, 53, Bytes(12)), br0, wan, all, false },
		{ udp_len(20), br0, wan, 24, true }, { udp_len(20), br0, wan, 100, true },
		{ udp_len(21), br0, wan, 24, false }, { udp_len(21), br0, wan, 100, false },
		{ cut(udp(kClient, kResolver, 40001, 53, Bytes(20))), br0, wan, all, false },
		{ cut(http), br0, wan, all, false },
		{ dns40, br0, wan, 20, true }, { dns40, br0, wan, 24, true },
		{ http, br0, wan, 20, true }, { http, br0, wan, 24, true }, { http, br0, wan, all, true },
		{ tcp(kServer, kClient, 80, 40000), wan, br0, all, true },
		{ tls, br0, wan, all, false }, { tls, br1, wan, all, true }, { tls, wan, br1, all, true },
		{ tls, br10, wan, all, true }, { tls, br0, br0, all, true },
	};
	for (auto &k : rows) {
		sim::Verdict v = r.forward(k.p, k.in, k.out, k.in == wan ? sim::kGatewayMac : sim::kClientMac, k.linear);
		EXPECT_TRUE(k.pass ? v.accepted() : dropped(v)) << "row " << (&k - rows);
	}
	EXPECT_TRUE(requests().empty());
	EXPECT_EQ(Lines{}, kmodel_log());
}

TEST_F(PctHook, TheServerIsTheDestinationFromBr0AndTheSourceOtherwise)
{
	resolve("video.example.test", { kServer });
	// Inbound to the resolved address from an unknown sender: no record.
	EXPECT_TRUE(dropped(down(tcp("203.0.113.9", kServer, 5000, 443))));
	EXPECT_TRUE(requests().empty());
	// Inbound from the resolved server: its record is rated.
	EXPECT_TRUE(dropped(down(tcp(kServer, kClient, 443, 40000))));
	rated({ 2, 0, {}, addr(kServer), "", "video.example.test" });
	EXPECT_EQ(3, pct_records()[0].state);
}

TEST_F(PctHook, RecordStatesDecideAndAFailedRequestAccepts)
{
	resolve("game.example.test", { kServer });
	auto pkt = tcp(kClient, kServer, 40000, 5222);
	// No memory for the request: this packet passes, the record stays new.
	kmodel_fail_alloc_flags(GFP_ATOMIC);
	EXPECT_TRUE(up(pkt).accepted());
	kmodel_fail_alloc_flags(0);
	EXPECT_EQ(0, pct_records()[0].state);
	EXPECT_TRUE(requests().empty());

	EXPECT_TRUE(dropped(up(pkt)));
	EXPECT_EQ(1u, requests().size());
	EXPECT_TRUE(dropped(up(pkt))); // waiting: no second request
	EXPECT_TRUE(requests().empty());

	// Each packet refreshes the record: it outlives its first time-out,
	// through the sweep that the next answer's record brings.
	r.advance(400000);
	up(pkt);
	r.advance(400000);
	up(pkt);
	resolve("next.example.test", { "198.51.100.44" });
	ASSERT_EQ(2u, pct_records().size());
	EXPECT_EQ("game.example.test", pct_records()[0].host);

	pct_update_state(pct_find(sim::ip4(kServer)), STATE_PASS);
	EXPECT_TRUE(up(pkt).accepted());
	EXPECT_TRUE(down(tcp(kServer, kClient, 5222, 40000)).accepted());
	// Any other state is a block: the record goes with the next packet.
	pct_update_state(pct_find(sim::ip4(kServer)), 5);
	EXPECT_TRUE(dropped(up(pkt)));
	EXPECT_EQ(nullptr, pct_find(sim::ip4(kServer)));
	EXPECT_TRUE(requests().empty());
}

TEST_F(PctHook, Ipv6IsAPortFilter)
{
	// A resolved IPv6 server makes no difference.
	resolve("v6.example.test", {}, { "2001:db8::443" });
	ASSERT_EQ(1u, pct6_records().size());
	const char *c = "2001:db8:1::10", *s = "2001:db8::443";
	EXPECT_TRUE(dropped(up(tcp(c, s, 40000, 443))));
	EXPECT_TRUE(up(tcp(c, s, 40000, 80)).accepted());
	EXPECT_TRUE(down(tcp(s, c, 80, 40000)).accepted());
	// DNS needs no payload over IPv6.
	EXPECT_TRUE(up(udp(c, s, 40000, 53, {})).accepted());
	EXPECT_TRUE(dropped(up(udp(c, s, 40000, 123, Bytes(48)))));
	Bytes icmp = udp(c, s, 128, 0, Bytes(8));
	icmp[6] = 58; // ICMPv6
	EXPECT_TRUE(dropped(up(icmp)));

	// HTTP behind a hop-by-hop header is still HTTP.
	sim::Ip6 ip;
	ip.src = sim::ip6(c);
	ip.dst = sim::ip6(s);
	ip.ext.push_back({ 0, Bytes(6) });
	sim::Tcp t;
	t.sport = 40000;
	EXPECT_TRUE(up(sim::ip6_tcp(ip, t)).accepted());
	// A chain that ends before its first header cannot be walked: accepted.
	Bytes broken = sim::ip6_tcp(ip, t);
	broken.resize(40);
	broken[4] = 0;
	broken[5] = 0;
	EXPECT_TRUE(up(broken).accepted());
	// A TCP header cut short: dropped.
	Bytes cut = tcp(c, s, 40000, 80);
	cut.resize(40 + 10);
	cut[4] = 0;
	cut[5] = 10;
	EXPECT_TRUE(dropped(up(cut)));
	EXPECT_TRUE(requests().empty());
}

TEST_F(PctHook, CapturedLookupsHoldRateThenPassOrBlock)
{
	feed({ 1, 2 }); // www.example.test A 10.53.1.10
	auto syn = tcp("10.53.0.2", "10.53.1.10", 41000, 443, sim::SYN);
	EXPECT_TRUE(dropped(up(syn)));
	auto req = rated({ 2, 0, {}, addr("10.53.1.10"), "", "www.example.test" });
	EXPECT_TRUE(dropped(up(syn))); // the retransmission waits
	EXPECT_TRUE(requests().empty());

	kmodel_log_clear();
	reply(req, PASS);
	EXPECT_EQ(Lines{ "<7>[receive_from_user]: [WP]non-HTTP: host=www.example.test --> PASS\n" }, kmodel_log());
	EXPECT_TRUE(up(syn).accepted());
	EXPECT_TRUE(down(tcp("10.53.1.10", "10.53.0.2", 443, 41000, sim::SYN | sim::ACK)).accepted());
	EXPECT_EQ(4, pct_records()[0].state);

	// multi.example.test: three addresses, each rated on its own.
	feed({ 11, 12 });
	auto quic = udp("10.53.0.2", "10.53.1.21", 41001, 443, Bytes(1200, 0xc3));
	EXPECT_TRUE(dropped(up(quic)));
	req = rated({ 2, 0, {}, addr("10.53.1.21"), "", "multi.example.test" });
	kmodel_log_clear();
	reply(req, BLOCK);
	EXPECT_EQ(Lines{ "<7>[receive_from_user]: [WP]non-HTTP: host=multi.example.test --> BLOCK\n" },
		  kmodel_log());
	size_t before = pct_records().size();
	EXPECT_TRUE(dropped(up(quic))); // forgets the server
	EXPECT_EQ(before - 1, pct_records().size());
	EXPECT_TRUE(dropped(up(quic))); // now unknown
	EXPECT_TRUE(requests().empty());
	// A server nobody resolved is unreachable; the other multi addresses
	// are still waiting for their first packet.
	EXPECT_TRUE(dropped(up(tcp("10.53.0.2", "10.53.9.9", 41002, 22))));
	EXPECT_TRUE(requests().empty());
	EXPECT_TRUE(dropped(up(tcp("10.53.0.2", "10.53.1.22", 41003, 22))));
	EXPECT_EQ(1u, requests().size());
}
