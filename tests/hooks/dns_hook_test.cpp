// The DNS snooping hooks on the simulated router: real dig/dnsmasq traffic
// (whose answers tshark reads as the tables below hold them) and hand-made
// messages, the tables they fill, the lines they log.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/hooks/fixture.h"

#include "hooks/update_host.h"
#include "lists/unblock.h"

using namespace hooks_test;

namespace {

// The log lines of the DNS hooks (the HTTP hooks see these packets too).
Lines dns_lines()
{
	Lines out;
	for (auto &l : kmodel_log())
		if (l.rfind("<7>[dns", 0) == 0)
			out.push_back(l);
	return out;
}

using DnsHook = HookTest;

} // namespace

TEST_F(DnsHook, CapturedLookupsSeedTheTablesOfTheSlotsFamily)
{
	services(true, true);
	// www A and AAAA over IPv4, then alias (a CNAME chain to www) A over IPv6.
	feed({ 1, 2, 3, 4, 27, 28 });

	// The A record that came over IPv6 is filed in the IPv4 table; an IPv6
	// query records no client: its records carry 0.0.0.0 or ::.
	EXPECT_EQ((std::vector<PctView>{ { "10.53.1.10", "www.example.test", 0, 0 },
					 { "10.53.1.10", "alias.example.test", 0, 0 } }),
		  pct_records());
	EXPECT_EQ((std::vector<PctView>{ { "fd00:53:1::10", "www.example.test", 0, 0 } }), pct6_records());
	EXPECT_EQ((std::vector<SslView>{ { "10.53.0.2", "10.53.1.10", "www.example.test", 2, 0 },
					 { "0.0.0.0", "10.53.1.10", "alias.example.test", 2, 0 } }),
		  ssl_records());
	EXPECT_EQ((std::vector<SslView>{ { "::", "fd00:53:1::10", "www.example.test", 2, 0 } }), ssl6_records());
	// The AAAA query of the same client refreshed its entry.
	EXPECT_EQ((std::vector<DnsView>{ { "www.example.test", "10.53.0.2", 1, 1 },
					 { "alias.example.test", "0.0.0.0", 1, 1 } }),
		  dns_records());
	EXPECT_EQ(Lines{}, dns_lines());
}

TEST_F(DnsHook, OnlyChangedSlotsAreSeededAgain)
{
	services(true, false);
	feed({ 11, 12 }); // multi: 10.53.1.22, .21, .23
	EXPECT_EQ(3u, pct_records().size());
	feed({ 12 }); // the same answer: every slot compares equal
	EXPECT_EQ(3u, pct_records().size());
	// "MULTI" asked in capitals by the same client: the same entry; the
	// answer's new order changes all three slots, which are added again.
	feed({ 21, 22 });
	auto pct = pct_records();
	ASSERT_EQ(6u, pct.size());
	EXPECT_EQ("10.53.1.21", pct[3].addr);
	EXPECT_EQ("10.53.1.23", pct[4].addr);
	EXPECT_EQ("10.53.1.22", pct[5].addr);
	EXPECT_EQ(1u, dns_records().size());

	// 29 answers (the decoder's maximum) fill 29 slots.
	feed({ 15, 16 });
	EXPECT_EQ(6u + 29u, pct_records().size());
}

TEST_F(DnsHook, AnswersWithoutUsableQueryChangeNothing)
{
	services(true, true);
	feed({ 2 }); // an answer nobody asked for
	EXPECT_TRUE(dns_records().empty());
	EXPECT_TRUE(pct_records().empty());
	feed({ 19, 20 }); // NXDOMAIN: the query is kept, the answer rejected
	const DnsView nothere = { "nothere.example.test", "10.53.0.2", 0, 0 };
	EXPECT_EQ(std::vector<DnsView>{ nothere }, dns_records());
	// CH TXT version.bind: the query files an entry with an empty name;
	// its answer (also class CH) matches the first entry of bucket 0.
	feed({ 23, 24 });
	EXPECT_EQ((std::vector<DnsView>{ nothere, { "", "10.53.0.2", 1, 0 } }), dns_records());
	EXPECT_TRUE(pct_records().empty());
	EXPECT_TRUE(ssl_records().empty());
	EXPECT_EQ(Lines{}, dns_lines());
}

// The same name from a second client right after the first: the answer
// goes to the newest entry, so the flow is recorded for the second.
TEST_F(DnsHook, TheNewestQueryTakesTheAnswer)
{
	services(false, true);
	auto q = dns_query(7, "shop.example.test");
	up(udp(kClient, kResolver, 40001, 53, q));
	up(udp(kClient2, kResolver, 40002, 53, q), kClient2Mac);
	// The second client asks again: its (newest) entry is refreshed.
	up(udp(kClient2, kResolver, 40002, 53, q), kClient2Mac);
	ASSERT_EQ(2u, dns_records().size());
	down(udp(kResolver, kClient, 53, 40001, dns_response(7, "shop.example.test", { kServer })));
	EXPECT_EQ((std::vector<DnsView>{ { "shop.example.test", kClient, 0, 0 }, { "shop.example.test", kClient2, 1, 1 } }),
		  dns_records());
	EXPECT_EQ((std::vector<SslView>{ { kClient2, kServer, "shop.example.test", 2, 0 } }), ssl_records());
	EXPECT_TRUE(dropped(up(tcp(kClient2, kServer, 40000, 443), kClient2Mac)));
	EXPECT_EQ(1u, requests().size());
	// The first client's flow matches no record: only the lists apply.
	EXPECT_TRUE(up(tcp(kClient, kServer, 40000, 443)).accepted());
	EXPECT_TRUE(requests().empty());
	// The first client asks once more: the first entry found is the second
	// client's, so a third entry is made.
	up(udp(kClient, kResolver, 40001, 53, q));
	EXPECT_EQ(3u, dns_records().size());
}

TEST_F(DnsHook, UpdateHostRecordsAreNeverDuplicatedAndSurviveSweeps)
{
	services(true, false);
	const char *host = FW_UPDATE_HOST;
	// Written in capitals by the client; the decoder lower-cases it.
	std::string upper = host;
	for (auto &c : upper)
		c = toupper(c);
	up(udp(kClient, kResolver, 40001, 53, dns_query(1, upper)));
	down(udp(kResolver, kClient, 53, 40001, dns_response(1, host, { "198.51.100.7" })));
	// Slot 0 changes, slot 1 holds an address already in the table.
	down(udp(kResolver, kClient, 53, 40001, dns_response(1, host, { "198.51.100.8", "198.51.100.7" })));
	// The refresh moved the found record behind the new one.
	const std::vector<PctView> kept = { { "198.51.100.8", host, 0, 1 }, { "198.51.100.7", host, 0, 1 } };
	EXPECT_EQ(kept, pct_records());

	up(udp(kClient, kResolver, 40001, 53, dns_query(2, "other.example.test")));
	down(udp(kResolver, kClient, 53, 40001, dns_response(2, "other.example.test", { kServer })));
	ASSERT_EQ(3u, pct_records().size());
	// Past every deadline, a new answer sweeps: the ordinary record goes,
	// the update host's stay.
	r.advance(600001);
	up(udp(kClient, kResolver, 40001, 53, dns_query(3, "late.example.test")));
	down(udp(kResolver, kClient, 53, 40001, dns_response(3, "late.example.test", { "203.0.113.5" })));
	std::vector<PctView> after = kept;
	after.push_back({ "203.0.113.5", "late.example.test", 0, 0 });
	EXPECT_EQ(after, pct_records());

	// The whole name, in any case, and nothing longer or shorter.
	std::string longer = std::string(host) + ".evil", shorter(host, strlen(host) - 1);
	EXPECT_TRUE(is_fw_update_host(upper.c_str()));
	EXPECT_FALSE(is_fw_update_host(longer.c_str()));
	EXPECT_FALSE(is_fw_update_host(shorter.c_str()));
}

TEST_F(DnsHook, CollisionsAndMalformedDatagrams)
{
	services(true, false);
	// Two names of one bucket: an answer for the second walks past the first.
	std::string a = "a0.example.test", b;
	u32 bucket = dns_hash(a.c_str(), a.size());
	for (int i = 1; b.empty(); i++) {
		std::string n = "a" + std::to_string(i) + ".example.test";
		if (dns_hash(n.c_str(), n.size()) == bucket)
			b = n;
	}
	up(udp(kClient, kResolver, 40001, 53, dns_query(1, a)));
	down(udp(kResolver, kClient, 53, 40001, dns_response(1, b, { kServer })));
	EXPECT_EQ(Lines{ "<7>[dns_hook]: Hash [" + std::to_string(bucket) + "] collision with [" + a +
			 "] -- [" + b + "]\n" },
		  kmodel_log());
	EXPECT_TRUE(pct_records().empty());

	// A UDP length beyond the packet: untouched.
	sim::Ip4 ip;
	ip.src = sim::ip4(kClient);
	ip.dst = sim::ip4(kResolver);
	sim::Udp u;
	u.sport = 40001;
	u.payload = dns_query(2, "long.example.test");
	u.length_override = 20 + 8 + u.payload.size() + 1; // the whole IP packet and one more
	EXPECT_EQ(NF_INET_FORWARD, up(sim::ip4_udp(ip, u)).hook);
	EXPECT_EQ(1u, dns_records().size());
	// Only the IP header in the linear area: the UDP length is made linear
	// counted from the IP header, so the message loses its last 20 bytes.
	// dig's query still holds its question then (its EDNS record is cut),
	// a bare query does not.
	auto q = udp(kClient, kResolver, 40001, 53, dns_query(3, "bare.example.test"));
	EXPECT_EQ(NF_INET_FORWARD, r.forward(q, r.br0(), r.wan(), sim::kClientMac, 20).hook);
	EXPECT_EQ(1u, dns_records().size());
	EXPECT_EQ(NF_INET_FORWARD, r.forward_frame(dns_capture().at(0), r.br0(), r.wan(), 20).hook);
	EXPECT_EQ("www.example.test", dns_records().back().name);
	// IPv6 pulls nothing: a UDP header outside the linear area is not read.
	auto q6 = udp("fd00::2", "fd00::1", 40001, 53, dns_query(4, "frag.example.test"));
	EXPECT_TRUE(r.forward(q6, r.br0(), r.wan(), sim::kClientMac, 44).accepted());
	EXPECT_EQ(2u, dns_records().size());

	// Only UDP is read: a TCP segment to port 53 whose header, read as a
	// UDP header and a DNS header, would make a query is not.
	const Bytes query = dns_query(6, "tcp.example.test");
	Bytes question(query.begin() + 12, query.end());
	Bytes seg = tcp(kClient, kResolver, 40001, 53, sim::FIN, question);
	const uint8_t as_dns[16] = { 0, 48, 0, 0, 0, 6, 1, 0, 0, 1, 0, 0, 0, 0, 0, 0 }; // length 48, id 6, RD, one question
	std::copy(as_dns, as_dns + 16, seg.begin() + 24);
	up(seg);
	EXPECT_EQ(2u, dns_records().size());

	kmodel_log_clear();
	EXPECT_TRUE(up(udp("ff02::1", "fd00::1", 40001, 53, dns_query(5, "m.example.test"))).accepted());
	EXPECT_EQ("<7>[dns6_hook]: dns6_hook: IPv6 address is not unicast.\n\n", kmodel_log().at(0));
	EXPECT_EQ(2u, dns_records().size());
}

// Each service seeds only its own tables, for the family of each answered
// address; a UDP length under 8 or past the packet stops the snooping, one
// short of the message does not (the message runs to the end of the data);
// IPv6 answers are found behind extension headers.
TEST_F(DnsHook, SeedingFollowsTheServicesAndTheDatagram)
{
	struct {
		bool wp, pc;
		size_t pct, pct6, ssl, ssl6;
	} modes[] = { { true, false, 1, 1, 0, 0 }, { false, true, 0, 0, 1, 1 }, { true, true, 1, 1, 1, 1 } };
	int id = 1;
	for (auto &m : modes) {
		SCOPED_TRACE(testing::Message() << "wp " << m.wp << " pc " << m.pc);
		services(m.wp, m.pc);
		std::string name = "svc" + std::to_string(id) + ".example.test";
		std::string v4 = "198.51.100." + std::to_string(id), v6 = "2001:db8:7::" + std::to_string(id);
		size_t pct = pct_records().size(), pct6 = pct6_records().size();
		size_t ssl = ssl_records().size(), ssl6 = ssl6_records().size();
		resolve(name.c_str(), { v4.c_str() }, { v6.c_str() });
		EXPECT_EQ(m.pct, pct_records().size() - pct);
		EXPECT_EQ(m.pct6, pct6_records().size() - pct6);
		EXPECT_EQ(m.ssl, ssl_records().size() - ssl);
		EXPECT_EQ(m.ssl6, ssl6_records().size() - ssl6);
		id++;
	}

	services(true, false);
	sim::Ip4 ip;
	ip.src = sim::ip4(kResolver), ip.dst = sim::ip4(kClient);
	struct {
		int delta; // UDP length field against the IP packet's length
		size_t seeded;
	} lengths[] = { { 1, 0 }, { 0, 1 }, { -1, 1 }, { -100000, 0 } };
	for (auto &l : lengths) {
		SCOPED_TRACE(l.delta);
		std::string name = "len" + std::to_string(id++) + ".example.test";
		up(udp(kClient, kResolver, 40001, 53, dns_query(7, name)));
		sim::Udp u;
		u.sport = 53, u.dport = 40001;
		u.payload = dns_response(7, name, { "203.0.113.9" });
		size_t total = 20 + 8 + u.payload.size();
		u.length_override = l.delta < -1000 ? 7 : total + l.delta;
		size_t before = pct_records().size();
		down(sim::ip4_udp(ip, u));
		EXPECT_EQ(l.seeded, pct_records().size() - before);
		if (pct_tracking *rec = pct_find(sim::ip4("203.0.113.9")))
			pct_delete(rec);
	}

	// Behind a destination-options header.
	sim::Ip6 ip6;
	ip6.src = sim::ip6("2001:4860::8888"), ip6.dst = kClient6;
	ip6.ext = { { 60, { 1, 4, 0, 0, 0, 0 } } };
	sim::Udp u6;
	u6.sport = 53, u6.dport = 40001;
	u6.payload = dns_response(8, "ext.example.test", {}, { "2001:db8:7::99" });
	up(udp("2001:db8:1::10", "2001:4860::8888", 40001, 53, dns_query(8, "ext.example.test", 28)));
	down(sim::ip6_udp(ip6, u6));
	EXPECT_EQ("ext.example.test", pct6_records().back().host);
	EXPECT_EQ("2001:db8:7::99", pct6_records().back().addr);
}
