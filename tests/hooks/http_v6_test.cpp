// IPv6 HTTP conversations: the twin hook's own differences.
#include <gtest/gtest.h>

#include <string>

#include "tests/hooks/fixture.h"


#include "net/netfilter/nf_conntrack.h"

using namespace hooks_test;

static const std::string kFn = "<7>[forward_hook6]: ";

// A request split over three segments: the first two go on and are
// collected, the third completes it and is rated; the held copy is the
// third segment. PASS: the slot moves to the IPv4 table.
TEST_F(HookTest, HttpIpv6RequestCollectedAcrossSegmentsAndPassed)
{
	services(false, true);
	Conn c = Conn(40000, true);
	handshake(c);
	EXPECT_EQ((Lines{ kFn + "tcphoff = 40 \n", kFn + "forward_hook6: add tcp SYN\n\n",
			  kFn + "tcphoff = 40 \n", kFn + "STATE_SYN_RCVD:\n", kFn + "tcphoff = 40 \n",
			  kFn + "STATE_SYN_RCVD:\n" }),
		  kmodel_log());
	EXPECT_EQ(STATE_ESTAB, record(c)->state);
	EXPECT_EQ(nullptr, record(c)->nfconn) << "never recorded for IPv6";

	std::string req = get_request("six.example", "/v6");
	EXPECT_TRUE(up(c.up(sim::ACK, req.substr(0, 10))).accepted());
	EXPECT_FALSE(down(c.down(sim::ACK)).accepted()) << "server segments dropped in ESTAB";
	EXPECT_TRUE(up(c.up(sim::ACK, req.substr(10, 20))).accepted());
	EXPECT_TRUE(requests().empty());
	Bytes third = c.up(sim::ACK | sim::PSH, req.substr(30));
	EXPECT_TRUE(up(third).accepted());
	EXPECT_EQ(req, std::string(record(c)->req_buf));
	EXPECT_EQ(req.size(), record(c)->req_len);

	auto reqs = requests();
	ASSERT_EQ(1u, reqs.size());
	Bytes want = expected_request(http_request(c, RATING_PC_REQUEST, "/v6", "six.example", &sim::kClientMac));
	Bytes got = bytes(reqs[0]);
	// The decoded fields come from an uncleared stack record: compare the
	// header, the two texts with their terminators, and the MAC.
	for (auto [from, to] : { std::pair{ 0, 52 }, { 308, 320 }, { 568, 576 } })
		EXPECT_EQ(Bytes(want.begin() + from, want.begin() + to), Bytes(got.begin() + from, got.begin() + to));

	size_t free4 = free_slots(tcp_table), free6 = free_slots(tcp_table6);
	kmodel_log_clear();
	reply(reqs[0], PASS);
	EXPECT_TRUE(kmodel_log().empty()) << "the IPv6 verdicts log nothing";
	EXPECT_EQ(std::vector<Bytes>{ third }, to_server()) << "only the third segment is held";
	EXPECT_TRUE(down(c.down(sim::ACK)).accepted());
	EXPECT_EQ((Lines{ kFn + "tcphoff = 40 \n", kFn + "STATE_PASS:\n" }), kmodel_log());
	EXPECT_EQ(nullptr, record(c));
	EXPECT_EQ(free4 + 1, free_slots(tcp_table)) << "the IPv4 table's delete takes the slot";
	EXPECT_EQ(free6, free_slots(tcp_table6));
	EXPECT_EQ(0, kmodel_skb_stats_get().live);
}

// Collection limits, empty hosts, and what the IPv6 hook lets by.
TEST_F(HookTest, HttpIpv6CollectionLimitsAndPacketsLeftAlone)
{
	services(true, false);
	Conn c = Conn(40000, true);
	handshake(c);
	// More than the buffer holds: cut at 2043 bytes and closed.
	std::string big = "GET /" + std::string(2100, 'a') + " HTTP/1.1\r\nHost: h\r\n\r\n";
	kmodel_log_clear();
	up(c.up(sim::ACK, big));
	EXPECT_EQ(kFn + "IPv6 header exceed buffer size(>2047), Cut Off!\n", kmodel_log().at(2));
	EXPECT_EQ(2047u, record(c)->req_len);
	EXPECT_EQ(big.substr(0, 2043) + "\r\n\r\n", std::string(record(c)->req_buf));
	EXPECT_EQ(STATE_ESTAB, record(c)->state) << "no Host line: undecodable, WP drops";
	EXPECT_FALSE(up(c.up(sim::ACK, "more")).accepted()) << "no room left";

	// Not unicast, other ports, and "br1" in WP mode (tracked in IPv6).
	kmodel_log_clear();
	Conn m = Conn(40002, true);
	m.server6 = sim::ip6("ff02::1");
	up(m.up(sim::SYN));
	EXPECT_EQ((Lines{ "<7>[dns6_hook]: dns6_hook: IPv6 address is not unicast.\n\n",
			  kFn + "forward_hook6: IPv6 address is not unicast.\n\n" }),
		  kmodel_log());
	kmodel_log_clear();
	Conn o = Conn(40003, true);
	o.sport = 8080;
	up(o.up(sim::SYN)); // the WP flow hook behind narrows IPv6 to HTTP and DNS
	EXPECT_EQ((Lines{ kFn + "tcphoff = 40 \n", kFn + "Not HTTP\n\n" }), kmodel_log());
	lan = r.br1();
	Conn b = Conn(40004, true);
	EXPECT_TRUE(up(b.up(sim::SYN)).accepted());
	EXPECT_NE(nullptr, record(b)) << "no early accept of br1 traffic over IPv6";
}
