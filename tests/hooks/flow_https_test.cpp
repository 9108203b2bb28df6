// The HTTPS hooks of PC: the client's MAC, exemptions and time blocks,
// per-packet rating of untrusted flows, the IPv6 twin's differences.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/hooks/fixture.h"

#include "lists/tblock.h"
#include "lists/unblock.h"
#include "net/neighbour.h"
#include "net/netfilter/nf_conntrack.h"

using namespace hooks_test;

namespace {

const char *const kName = "chat.example.test";

class HttpsHook : public HookTest {
protected:
	void SetUp() override
	{
		HookTest::SetUp();
		services(false, true);
	}
	Expected pc_request(const char *src, const char *dst, const sim::Mac &mac, const char *host = kName)
	{
		return { 4, uint16_t(strchr(src, ':') ? 10 : 2), addr(src), addr(dst), "/", host, mac };
	}
};

} // namespace

TEST_F(HttpsHook, ClientMacFromTheFrameOrTheNeighbourCache)
{
	resolve(kName, { kServer });
	EXPECT_TRUE(dropped(up(tcp(kClient, kServer, 40000, 443))));
	rated(pc_request(kClient, kServer, sim::kClientMac));

	// From outside with nobody in the ARP cache: logged and passed.
	auto back = tcp(kServer, kClient, 443, 40000);
	kmodel_log_clear();
	EXPECT_TRUE(down(back).accepted());
	EXPECT_EQ(Lines{ "<7>[https_forward_hook]: Find in=eth0, out=br0 "
			 "[93.184.216.34-->192.168.1.10]'s ARP cache failed\n\n" },
		  kmodel_log());
	// An entry that is not valid counts as none.
	struct neighbour *n = r.neighbour(kClient, r.br0(), kClient2Mac, NUD_FAILED, 7);
	kmodel_log_clear();
	EXPECT_TRUE(down(back).accepted());
	EXPECT_EQ(1u, kmodel_log().size());
	// A stale entry gives the MAC; it is marked used and given back.
	kmodel_neigh_update(n, kClient2Mac.data(), NUD_STALE);
	r.advance(123);
	EXPECT_TRUE(dropped(down(back)));
	EXPECT_EQ(r.now(), n->used);
	EXPECT_EQ(1, kmodel_neigh_refs(n));
	rated(pc_request(kClient, kServer, kClient2Mac));
}

TEST_F(HttpsHook, UntrustedFlowsAreRatedByEveryPacketUntilAVerdict)
{
	resolve(kName, { kServer });
	auto pkt = tcp(kClient, kServer, 40000, 443);
	for (int i = 0; i < 3; i++)
		EXPECT_TRUE(dropped(up(pkt)));
	auto req = requests();
	ASSERT_EQ(3u, req.size());
	for (auto &q : req)
		EXPECT_EQ(sim::hex(expected_request(pc_request(kClient, kServer, sim::kClientMac))), hex(q));
	EXPECT_EQ(3, ssl_records()[0].state);

	kmodel_log_clear();
	reply(req[2], BLOCK);
	EXPECT_EQ(Lines{ "<7>[receive_from_user]: [PC]non-HTTP: host=chat.example.test --> BLOCK\n" },
		  kmodel_log());
	// Blocked for good, each packet keeping the record alive through the
	// sweep that the next answer's record brings.
	r.neighbour(kClient, r.br0(), sim::kClientMac, NUD_REACHABLE, 0);
	for (int i = 0; i < 3; i++) {
		r.advance(50000);
		EXPECT_TRUE(dropped(up(pkt)));
		EXPECT_TRUE(dropped(down(tcp(kServer, kClient, 443, 40000))));
	}
	r.advance(50000);
	resolve("next.example.test", { "198.51.100.44" });
	ASSERT_EQ(2u, ssl_records().size());
	EXPECT_EQ(kName, ssl_records()[0].host);
	EXPECT_TRUE(requests().empty());

	// Another flow: WHITE_PASS passes it and marks its connection white.
	resolve("mail.example.test", { "198.51.100.25" });
	auto imap = tcp(kClient, "198.51.100.25", 40100, 993);
	EXPECT_TRUE(dropped(up(imap)));
	reply(requests().at(0), WHITE_PASS);
	EXPECT_TRUE(up(imap).accepted());
	EXPECT_EQ(1, r.conntrack(imap)->white_mark);
	EXPECT_EQ(5, ssl_records().back().state);
	EXPECT_EQ(1, ssl_records().back().trust);
}

TEST_F(HttpsHook, ExemptionsTimeBlocksAndConntrackInBothFamilies)
{
	struct {
		const char *client, *server, *unrecorded, *resolver;
	} fams[] = {
		{ kClient, kServer, "203.0.113.80", kResolver },
		{ "2001:db8:1::10", "2001:db8:2::443", "2001:db8:2::99", "2001:4860::8888" },
	};
	for (auto &f : fams) {
		SCOPED_TRACE(f.client);
		const bool v6 = strchr(f.client, ':');
		auto unrecorded = tcp(f.client, f.unrecorded, 40000, 443);
		auto recorded = tcp(f.client, f.server, 40000, 443);
		EXPECT_TRUE(up(unrecorded).accepted()); // unlisted device

		ASSERT_EQ(0, tblk_insert(sim::kClientMac.data()));
		EXPECT_TRUE(dropped(up(unrecorded)));
		// The MAC is the frame's on either bridge: another device on br1
		// is not the listed one.
		EXPECT_TRUE(r.forward(unrecorded, r.br1(), r.wan(), kClient2Mac).accepted());
		EXPECT_TRUE(dropped(r.forward(unrecorded, r.br1(), r.wan(), sim::kClientMac)));
		// DNS with at least 13 bytes of payload and HTTP are not judged.
		for (size_t len : { 12, 13 }) {
			auto dns = udp(f.client, f.resolver, 40001, 53, Bytes(len, 0));
			EXPECT_EQ(len == 13, r.forward(dns, lan, r.wan(), sim::kClientMac).accepted()) << len;
		}
		r.conntrack(unrecorded)->white_mark = 1;
		EXPECT_TRUE(up(unrecorded).accepted());
		r.set_tracking(false);
		kmodel_log_clear();
		// The HTTP hook's own IPv6 lines aside.
		auto lines = [] {
			Lines out;
			for (const auto &l : kmodel_log())
				if (l.rfind("<7>[forward_hook6]", 0))
					out.push_back(l);
			return out;
		};
		EXPECT_TRUE(dropped(up(unrecorded)));
		EXPECT_EQ(Lines{ "<3>[is_white_conn]: no conntrack!\n\n" }, lines());
		// A recorded flow without conntrack: dropped without a word or a request.
		up(udp(f.client, f.resolver, 40001, 53, dns_query(1, kName, v6 ? 28 : 1)));
		down(udp(f.resolver, f.client, 53, 40001,
			 v6 ? dns_response(1, kName, {}, { f.server }) : dns_response(1, kName, { f.server })));
		kmodel_log_clear();
		EXPECT_TRUE(dropped(up(recorded)));
		EXPECT_EQ(Lines{}, lines());
		EXPECT_TRUE(requests().empty());
		// Passed by the daemon, it is trusted, but still needs an entry.
		send(flow_reply(RATING_PC_REPLY, f.client, f.server, PASS));
		EXPECT_TRUE(dropped(up(recorded)));
		r.set_tracking(true);
		EXPECT_TRUE(up(recorded).accepted());
		// Untrusted again (as after a flush) for what follows.
		if (v6)
			ssl6_table->slots[0].trust = 0;
		else
			ssl_table->slots[0].trust = 0;

		// A live exemption passes everything, recorded or not.
		ASSERT_EQ(0, ublk_insert(sim::kClientMac.data(), "", 0));
		EXPECT_TRUE(up(unrecorded).accepted());
		r.conntrack(unrecorded)->white_mark = 0;
		EXPECT_TRUE(up(recorded).accepted());
		EXPECT_TRUE(requests().empty());
		// Expired: deleted by the next packet, which is judged.
		r.advance(900000);
		EXPECT_TRUE(dropped(up(recorded)));
		EXPECT_EQ(1u, requests().size());
		int expired = 0;
		EXPECT_EQ(nullptr, ublk_get(sim::kClientMac.data(), &expired));
		tblk_flush();
	}
}

TEST_F(HttpsHook, WithWpOnPcJudgesOnlyTheSecondBridge)
{
	services(true, true);
	resolve(kName, { kServer });
	ASSERT_EQ(0, tblk_insert(sim::kClientMac.data()));
	auto pkt = tcp(kClient, kServer, 40000, 443);
	// From br0 WP decides: once it passes the server, PC does not look,
	// although the device is time-blocked.
	EXPECT_TRUE(dropped(up(pkt)));
	auto req = requests();
	ASSERT_EQ(1u, req.size());
	reply(req[0], PASS);
	EXPECT_TRUE(up(pkt).accepted());
	EXPECT_TRUE(requests().empty());
	// From br1 PC decides (WP exempts the second bridge).
	EXPECT_TRUE(dropped(r.forward(pkt, r.br1(), r.wan())));
	req = requests();
	ASSERT_EQ(1u, req.size());
	EXPECT_EQ(4u, req[0].service);
}

TEST_F(HttpsHook, Ipv6RequestsCarryThePacketsAddresses)
{
	const char *c = "2001:db8:1::10";
	// Byte 12 of both addresses is 0: one bucket for either direction.
	const char *s = "2001:db8:2::443";
	up(udp(c, "2001:4860::8888", 40001, 53, dns_query(1, kName, 28)));
	down(udp("2001:4860::8888", c, 53, 40001, dns_response(1, kName, {}, { s })));
	ASSERT_EQ(1u, ssl6_records().size());

	r.neighbour(c, r.br0(), sim::kClientMac, NUD_REACHABLE, 0);
	EXPECT_TRUE(dropped(down(tcp(s, c, 443, 40000))));
	// From the server: its address is the source of the request.
	rated(pc_request(s, c, sim::kClientMac));
	EXPECT_TRUE(dropped(up(tcp(c, s, 40000, 443))));
	rated(pc_request(c, s, sim::kClientMac));
	EXPECT_EQ(STATE_RATING, ssl6_records()[0].state);
	// No memory for the request: the packet passes, nothing is sent.
	kmodel_fail_alloc_flags(GFP_ATOMIC);
	EXPECT_TRUE(up(tcp(c, s, 40000, 443)).accepted());
	kmodel_fail_alloc_flags(0);
	EXPECT_TRUE(requests().empty());
	// WHITE_PASS marks the connection the record took from its packets.
	EXPECT_TRUE(dropped(up(tcp(c, s, 40000, 443))));
	reply(rated(pc_request(c, s, sim::kClientMac)), WHITE_PASS);
	EXPECT_EQ(1, r.conntrack(tcp(c, s, 40000, 443))->white_mark);
	EXPECT_TRUE(up(tcp(c, s, 40000, 443)).accepted());

	kmodel_log_clear();
	EXPECT_TRUE(down(tcp(s, "2001:db8:1::99", 443, 40000)).accepted());
	EXPECT_EQ("<7>[https6_forward_hook]: nd_query failed.\n\n", kmodel_log().back());
	kmodel_log_clear();
	EXPECT_TRUE(up(tcp(c, "ff0e::1", 40000, 443)).accepted());
	EXPECT_EQ("<7>[https6_forward_hook]: forward_hook6: IPv6 address is not unicast.\n\n",
		  kmodel_log().back());
}

// dig's lookups (captured from dnsmasq) over both families, then flows to
// the addresses they gave, rated and trusted. "=|flush_ssl" withdraws the
// trust of the family of the next packet only; with both services off
// nothing is parsed and the flush waits.
TEST_F(HttpsHook, CapturedLookupsTrustedThenFlushedOneFamilyAtATime)
{
	feed({ 1, 2, 25, 26 }); // www A over IPv4, www AAAA over IPv6
	sim::Mac dig_mac;       // the client's own MAC, as dig's frames carry it
	std::copy(dns_capture()[0].begin() + 6, dns_capture()[0].begin() + 12, dig_mac.begin());
	auto v4 = tcp("10.53.0.2", "10.53.1.10", 41000, 443);
	auto v6 = tcp("fd00:53::2", "fd00:53:1::10", 41000, 443);
	EXPECT_TRUE(dropped(up(v4, dig_mac)));
	reply(rated(pc_request("10.53.0.2", "10.53.1.10", dig_mac, "www.example.test")), PASS);
	EXPECT_TRUE(dropped(up(v6, dig_mac)));
	reply(rated(pc_request("fd00:53::2", "fd00:53:1::10", dig_mac, "www.example.test")), PASS);
	EXPECT_TRUE(up(v4, dig_mac).accepted());
	EXPECT_TRUE(up(v6, dig_mac).accepted());
	// Inbound, the client's MAC comes from the ARP cache.
	r.neighbour("10.53.0.2", r.br0(), dig_mac, NUD_REACHABLE, 0);
	EXPECT_TRUE(down(tcp("10.53.1.10", "10.53.0.2", 443, 41000)).accepted());

	ASSERT_GT(r.write_proc("unblock_proc", "=|flush_ssl"), 0);
	kmodel_log_clear();
	EXPECT_TRUE(dropped(up(v4, dig_mac)));
	EXPECT_EQ("<7>[dns_hook]: flush all ssl tracking\n", kmodel_log().at(0));
	EXPECT_EQ(0, get_flush_supending());
	reply(requests().at(0), PASS);
	EXPECT_TRUE(up(v6, dig_mac).accepted());
	EXPECT_TRUE(requests().empty());

	// Any IPv6 packet, DNS or not, reaches dns6_hook first.
	ASSERT_GT(r.write_proc("unblock_proc", "=|flush_ssl"), 0);
	kmodel_log_clear();
	EXPECT_TRUE(dropped(up(v6, dig_mac)));
	ASSERT_GE(kmodel_log().size(), 2u);
	EXPECT_EQ((Lines{ "<7>[dns6_hook]: flush all ssl tracking\n",
			  "<7>[ssl6_delete_all]: clear ssl tracking[" + std::to_string(sim::ip6("fd00:53:1::10")[12] & 127) +
				  "], host=www.example.test\n" }),
		  Lines(kmodel_log().begin(), kmodel_log().begin() + 2));
	EXPECT_EQ(0, get_flush_supending());
	EXPECT_EQ(0, ssl6_records()[0].trust);
	EXPECT_EQ(1, ssl_records()[0].trust);
	EXPECT_TRUE(up(v4, dig_mac).accepted());

	services(false, false);
	ASSERT_GT(r.write_proc("unblock_proc", "=|flush_ssl"), 0);
	kmodel_log_clear();
	up(udp(kClient, kResolver, 40001, 53, dns_query(9, "off.example.test")));
	EXPECT_EQ(1, get_flush_supending());
	EXPECT_EQ(2u, dns_records().size());
	EXPECT_EQ(1, ssl_records()[0].trust);
	EXPECT_TRUE(kmodel_log().empty());
}
