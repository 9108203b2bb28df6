// The non-HTTP flow hooks of WP: what they leave alone, how they pick the
// server, what they ask the daemon, and the IPv6 port filter.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "flow_fixture.h"
#include "kmodel/host.h"
#include "linux/netfilter.h"
#include "linux/slab.h"
#include "track/pct_table.h"
#include "track/tcp_table.h"

using namespace flows;

namespace {

class PctHook : public FlowTest {
protected:
	void SetUp() override
	{
		FlowTest::SetUp();
		wp(true);
	}
	void resolve(const char *name, std::vector<const char *> v4, std::vector<const char *> v6 = {})
	{
		out(udp4(kClient, kResolver, 40001, 53, dns_query(1, name)));
		in(udp4(kResolver, kClient, 53, 40001, dns_response(1, name, v4, v6)));
	}
	bool dropped(const sim::Verdict &v) { return v.verdict == NF_DROP && v.hook == NF_INET_FORWARD; }
};

} // namespace

TEST_F(PctHook, DnsHttpAndTheSecondBridgeAreLeftAlone)
{
	// No server resolved at all.
	EXPECT_TRUE(out(udp4(kClient, kResolver, 40001, 53, Bytes(13))).accepted());
	EXPECT_TRUE(in(udp4(kResolver, kClient, 53, 40001, Bytes(13))).accepted());
	// Twelve bytes are no DNS message: judged by the table.
	EXPECT_TRUE(dropped(out(udp4(kClient, kResolver, 40001, 53, Bytes(12)))));
	EXPECT_TRUE(out(tcp4(kClient, kServer, 40000, 80)).accepted());
	EXPECT_TRUE(in(tcp4(kServer, kClient, 80, 40000)).accepted());

	auto tls = tcp4(kClient, kServer, 40000, 443);
	EXPECT_TRUE(dropped(out(tls)));
	EXPECT_TRUE(router.forward(tls, router.br1(), router.wan()).accepted());
	EXPECT_TRUE(router.forward(tls, router.wan(), router.br1()).accepted());
	// Three characters decide: "br10" is the second bridge too.
	const uint8_t m[6] = { 2, 0, 0, 0, 0, 9 };
	struct net_device *br10 = kmodel_dev_add("br10", m);
	EXPECT_TRUE(router.forward(tls, br10, router.wan()).accepted());
	// Out by the device it came in on: not filtered.
	EXPECT_TRUE(router.forward(tls, router.br0(), router.br0()).accepted());
	EXPECT_TRUE(requests().empty());
	EXPECT_EQ(Lines{}, kmodel_log());
}

TEST_F(PctHook, TheServerIsTheDestinationFromBr0AndTheSourceOtherwise)
{
	resolve("video.example.test", { kServer });
	// Inbound to the resolved address from an unknown sender: no record.
	EXPECT_TRUE(dropped(in(tcp4("203.0.113.9", kServer, 5000, 443))));
	EXPECT_TRUE(requests().empty());
	// Inbound from the resolved server: its record is rated.
	EXPECT_TRUE(dropped(in(tcp4(kServer, kClient, 443, 40000))));
	auto req = requests();
	ASSERT_EQ(1u, req.size());
	EXPECT_EQ(sim::hex(expected_request({ 2, 0, {}, addr4(kServer), "", "video.example.test" })),
		  sim::hex(req[0]));
	EXPECT_EQ(3, pct_records()[0].state);
}

TEST_F(PctHook, RecordStatesDecideAndAFailedRequestAccepts)
{
	resolve("game.example.test", { kServer });
	auto pkt = tcp4(kClient, kServer, 40000, 5222);
	// No memory for the request: this packet passes, the record stays new.
	kmodel_fail_alloc_flags(GFP_ATOMIC);
	EXPECT_TRUE(out(pkt).accepted());
	kmodel_fail_alloc_flags(0);
	EXPECT_EQ(0, pct_records()[0].state);
	EXPECT_TRUE(requests().empty());

	EXPECT_TRUE(dropped(out(pkt)));
	EXPECT_EQ(1u, requests().size());
	EXPECT_TRUE(dropped(out(pkt))); // waiting: no second request
	EXPECT_TRUE(requests().empty());

	// Each packet refreshes the record: it outlives its first time-out.
	router.advance(400000);
	out(pkt);
	router.advance(400000);
	out(pkt);
	ASSERT_EQ(1u, pct_records().size());

	pct_update_state(pct_find(sim::ip4(kServer)), STATE_PASS);
	EXPECT_TRUE(out(pkt).accepted());
	EXPECT_TRUE(in(tcp4(kServer, kClient, 5222, 40000)).accepted());
	// Any other state is a block: the record goes with the next packet.
	pct_update_state(pct_find(sim::ip4(kServer)), 5);
	EXPECT_TRUE(dropped(out(pkt)));
	EXPECT_TRUE(pct_records().empty());
	EXPECT_TRUE(requests().empty());
}

TEST_F(PctHook, Ipv6IsAPortFilter)
{
	// A resolved IPv6 server makes no difference.
	resolve("v6.example.test", {}, { "2001:db8::443" });
	ASSERT_EQ(1u, pct6_records().size());
	const char *c = "2001:db8:1::10", *s = "2001:db8::443";
	EXPECT_TRUE(dropped(out(tcp6(c, s, 40000, 443))));
	EXPECT_TRUE(out(tcp6(c, s, 40000, 80)).accepted());
	EXPECT_TRUE(in(tcp6(s, c, 80, 40000)).accepted());
	// DNS needs no payload over IPv6.
	EXPECT_TRUE(out(udp6(c, s, 40000, 53, {})).accepted());
	EXPECT_TRUE(dropped(out(udp6(c, s, 40000, 123, Bytes(48)))));
	Bytes icmp = udp6(c, s, 128, 0, Bytes(8));
	icmp[6] = 58; // ICMPv6
	EXPECT_TRUE(dropped(out(icmp)));

	// HTTP behind a hop-by-hop header is still HTTP.
	sim::Ip6 ip;
	ip.src = sim::ip6(c);
	ip.dst = sim::ip6(s);
	ip.ext.push_back({ 0, Bytes(6) });
	sim::Tcp t;
	t.sport = 40000;
	EXPECT_TRUE(out(sim::ip6_tcp(ip, t)).accepted());
	// A chain that ends before its first header cannot be walked: accepted.
	Bytes broken = sim::ip6_tcp(ip, t);
	broken.resize(40);
	broken[4] = 0;
	broken[5] = 0;
	EXPECT_TRUE(out(broken).accepted());
	// A TCP header cut short: dropped.
	Bytes cut = tcp6(c, s, 40000, 80);
	cut.resize(40 + 10);
	cut[4] = 0;
	cut[5] = 10;
	EXPECT_TRUE(dropped(out(cut)));
	EXPECT_TRUE(requests().empty());
}
