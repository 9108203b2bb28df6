// Whole flows on the simulated router with a scripted daemon: dig's lookup
// (captured from dnsmasq) through the DNS hook, then a flow to the address
// it gave, held, rated, passed or dropped.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "flow_fixture.h"
#include "linux/netfilter.h"
#include "lists/unblock.h"
#include "net/neighbour.h"

using namespace flows;

namespace {

const uint32_t kPass = 0, kBlock = 2;

class FlowScenario : public FlowTest {
protected:
	void lookup(int query_frame)
	{
		const auto &cap = dns_capture();
		ASSERT_FALSE(cap.empty()) << "tests/data/dns.pcap missing";
		ASSERT_TRUE(frame(cap.at(query_frame - 1), true).accepted());
		ASSERT_TRUE(frame(cap.at(query_frame), false).accepted());
	}
	// The client's own MAC, as dig's frames carry it.
	sim::Mac client_mac()
	{
		sim::Mac m;
		std::copy(dns_capture().at(0).begin() + 6, dns_capture().at(0).begin() + 12, m.begin());
		return m;
	}
	sim::Verdict send(const Bytes &ip) { return out(ip, client_mac()); }
	bool dropped(const sim::Verdict &v) { return v.verdict == NF_DROP && v.hook == NF_INET_FORWARD; }
};

} // namespace

TEST_F(FlowScenario, WarningPageHoldsRatesThenPassesOrBlocks)
{
	wp(true);
	lookup(1); // www.example.test A 10.53.1.10
	auto syn = tcp4("10.53.0.2", "10.53.1.10", 41000, 443, 0x02);
	EXPECT_TRUE(dropped(send(syn)));
	auto req = requests();
	ASSERT_EQ(1u, req.size());
	EXPECT_EQ(sim::hex(expected_request({ 2, 0, {}, addr4("10.53.1.10"), "", "www.example.test" })),
		  sim::hex(req[0]));
	EXPECT_TRUE(dropped(send(syn))); // the retransmission waits
	EXPECT_TRUE(requests().empty());

	kmodel_log_clear();
	answer(req[0], kPass);
	EXPECT_EQ(Lines{ "<7>[receive_from_user]: [WP]non-HTTP: host=www.example.test --> PASS\n" },
		  kmodel_log());
	EXPECT_TRUE(send(syn).accepted());
	EXPECT_TRUE(in(tcp4("10.53.1.10", "10.53.0.2", 443, 41000, 0x12)).accepted());
	EXPECT_EQ(4, pct_records()[0].state);

	// multi.example.test: three addresses, each rated on its own.
	lookup(11);
	auto quic = udp4("10.53.0.2", "10.53.1.21", 41001, 443, Bytes(1200, 0xc3));
	EXPECT_TRUE(dropped(send(quic)));
	req = requests();
	ASSERT_EQ(1u, req.size());
	EXPECT_EQ(sim::hex(expected_request({ 2, 0, {}, addr4("10.53.1.21"), "", "multi.example.test" })),
		  sim::hex(req[0]));
	kmodel_log_clear();
	answer(req[0], kBlock);
	EXPECT_EQ(Lines{ "<7>[receive_from_user]: [WP]non-HTTP: host=multi.example.test --> BLOCK\n" },
		  kmodel_log());
	size_t before = pct_records().size();
	EXPECT_TRUE(dropped(send(quic))); // forgets the server
	EXPECT_EQ(before - 1, pct_records().size());
	EXPECT_TRUE(dropped(send(quic))); // now unknown
	EXPECT_TRUE(requests().empty());
	// A server nobody resolved is unreachable; the other multi addresses
	// are still waiting for their first packet.
	EXPECT_TRUE(dropped(send(tcp4("10.53.0.2", "10.53.9.9", 41002, 22))));
	EXPECT_TRUE(requests().empty());
	EXPECT_TRUE(dropped(send(tcp4("10.53.0.2", "10.53.1.22", 41003, 22))));
	EXPECT_EQ(1u, requests().size());
}

TEST_F(FlowScenario, ParentalControlTrustsThenFlushesOneFamily)
{
	pc(true);
	lookup(1);  // www A over IPv4
	lookup(25); // www AAAA over IPv6
	auto v4 = tcp4("10.53.0.2", "10.53.1.10", 41000, 443);
	auto v6 = tcp6("fd00:53::2", "fd00:53:1::10", 41000, 443);
	EXPECT_TRUE(dropped(send(v4)));
	EXPECT_TRUE(dropped(send(v6)));
	auto req = requests();
	ASSERT_EQ(2u, req.size());
	EXPECT_EQ(sim::hex(expected_request({ 4, 2, addr4("10.53.0.2"), addr4("10.53.1.10"), "/",
					      "www.example.test", client_mac() })),
		  sim::hex(req[0]));
	EXPECT_EQ(sim::hex(expected_request({ 4, 10, addr6("fd00:53::2"), addr6("fd00:53:1::10"), "/",
					      "www.example.test", client_mac() })),
		  sim::hex(req[1]));
	answer(req[0], kPass);
	answer(req[1], kPass);
	EXPECT_TRUE(send(v4).accepted());
	EXPECT_TRUE(send(v6).accepted());
	// Inbound, the client's MAC comes from the ARP cache.
	router.neighbour("10.53.0.2", router.br0(), client_mac(), NUD_REACHABLE, 0);
	EXPECT_TRUE(in(tcp4("10.53.1.10", "10.53.0.2", 443, 41000)).accepted());

	// "=|flush_ssl": the next IPv4 packet withdraws IPv4 trust only.
	ASSERT_GT(router.write_proc("unblock_proc", "=|flush_ssl"), 0);
	kmodel_log_clear();
	EXPECT_TRUE(dropped(send(v4)));
	EXPECT_EQ("<7>[dns_hook]: flush all ssl tracking\n", kmodel_log().at(0));
	EXPECT_EQ(0, get_flush_supending());
	EXPECT_EQ(1u, requests().size());
	EXPECT_TRUE(send(v6).accepted());
	EXPECT_TRUE(requests().empty());
}

TEST_F(FlowScenario, TwoClientsAskingForOneName)
{
	pc(true);
	// The same name from a second client right after the first: the answer
	// goes to the newest entry, so the flow is recorded for the second.
	auto q = dns_query(5, "news.example.test");
	out(udp4(kClient, kResolver, 40001, 53, q));
	out(udp4(kClient2, kResolver, 40002, 53, q), kClient2Mac);
	in(udp4(kResolver, kClient, 53, 40001, dns_response(5, "news.example.test", { kServer })));
	EXPECT_TRUE(dropped(out(tcp4(kClient2, kServer, 40000, 443), kClient2Mac)));
	EXPECT_EQ(1u, requests().size());
	// The first client's flow matches no record: only the lists apply.
	EXPECT_TRUE(out(tcp4(kClient, kServer, 40000, 443)).accepted());
	EXPECT_TRUE(requests().empty());
}
