// The HTTPS hooks of PC: the client's MAC, exemptions and time blocks,
// per-packet rating of untrusted flows, the IPv6 twin's differences.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "flow_fixture.h"
#include "linux/netfilter.h"
#include "lists/tblock.h"
#include "lists/unblock.h"
#include "net/neighbour.h"
#include "net/netfilter/nf_conntrack.h"
#include "track/ssl_table.h"
#include "track/tcp_table.h"

using namespace flows;

namespace {

const char *const kName = "chat.example.test";
// Verdicts on the wire.
const uint32_t kPass = 0, kWhitePass = 1, kBlock = 2;

class HttpsHook : public FlowTest {
protected:
	void SetUp() override
	{
		FlowTest::SetUp();
		pc(true);
	}
	void resolve(const char *client, const char *name, std::vector<const char *> v4,
		     std::vector<const char *> v6 = {})
	{
		out(udp4(client, kResolver, 40001, 53, dns_query(1, name)));
		in(udp4(kResolver, client, 53, 40001, dns_response(1, name, v4, v6)));
	}
	bool dropped(const sim::Verdict &v) { return v.verdict == NF_DROP && v.hook == NF_INET_FORWARD; }
	Bytes pc_request(const char *src, const char *dst, const sim::Mac &mac, const char *host = kName)
	{
		return expected_request({ 4, 2, addr4(src), addr4(dst), "/", host, mac });
	}
};

} // namespace

TEST_F(HttpsHook, ClientMacFromTheFrameOrTheNeighbourCache)
{
	resolve(kClient, kName, { kServer });
	EXPECT_TRUE(dropped(out(tcp4(kClient, kServer, 40000, 443))));
	auto req = requests();
	ASSERT_EQ(1u, req.size());
	EXPECT_EQ(sim::hex(pc_request(kClient, kServer, sim::kClientMac)), sim::hex(req[0]));

	// From outside with nobody in the ARP cache: logged and passed.
	auto back = tcp4(kServer, kClient, 443, 40000);
	kmodel_log_clear();
	EXPECT_TRUE(in(back).accepted());
	EXPECT_EQ(Lines{ "<7>[https_forward_hook]: Find in=eth0, out=br0 "
			 "[93.184.216.34-->192.168.1.10]'s ARP cache failed\n\n" },
		  kmodel_log());
	// An entry that is not valid counts as none.
	struct neighbour *n = router.neighbour(kClient, router.br0(), kClient2Mac, NUD_FAILED, 7);
	kmodel_log_clear();
	EXPECT_TRUE(in(back).accepted());
	EXPECT_EQ(1u, kmodel_log().size());
	// A stale entry gives the MAC; it is marked used and given back.
	kmodel_neigh_update(n, kClient2Mac.data(), NUD_STALE);
	router.advance(123);
	EXPECT_TRUE(dropped(in(back)));
	EXPECT_EQ(router.now(), n->used);
	EXPECT_EQ(1, kmodel_neigh_refs(n));
	req = requests();
	ASSERT_EQ(1u, req.size());
	EXPECT_EQ(sim::hex(pc_request(kClient, kServer, kClient2Mac)), sim::hex(req[0]));
}

TEST_F(HttpsHook, UntrustedFlowsAreRatedByEveryPacketUntilAVerdict)
{
	resolve(kClient, kName, { kServer });
	auto pkt = tcp4(kClient, kServer, 40000, 443);
	for (int i = 0; i < 3; i++)
		EXPECT_TRUE(dropped(out(pkt)));
	auto req = requests();
	ASSERT_EQ(3u, req.size());
	for (auto &r : req)
		EXPECT_EQ(sim::hex(pc_request(kClient, kServer, sim::kClientMac)), sim::hex(r));
	EXPECT_EQ(3, ssl_records()[0].state);

	kmodel_log_clear();
	answer(req[2], kBlock);
	EXPECT_EQ(Lines{ "<7>[receive_from_user]: [PC]non-HTTP: host=chat.example.test --> BLOCK\n" },
		  kmodel_log());
	// Blocked for good, each packet keeping the record alive.
	router.neighbour(kClient, router.br0(), sim::kClientMac, NUD_REACHABLE, 0);
	for (int i = 0; i < 3; i++) {
		router.advance(50000);
		EXPECT_TRUE(dropped(out(pkt)));
		EXPECT_TRUE(dropped(in(tcp4(kServer, kClient, 443, 40000))));
	}
	ASSERT_EQ(1u, ssl_records().size());
	EXPECT_TRUE(requests().empty());

	// Another flow: WHITE_PASS passes it and marks its connection white.
	resolve(kClient, "mail.example.test", { "198.51.100.25" });
	auto imap = tcp4(kClient, "198.51.100.25", 40100, 993);
	EXPECT_TRUE(dropped(out(imap)));
	answer(requests().at(0), kWhitePass);
	EXPECT_TRUE(out(imap).accepted());
	EXPECT_EQ(1, router.conntrack(imap)->white_mark);
	EXPECT_EQ(5, ssl_records().back().state);
	EXPECT_EQ(1, ssl_records().back().trust);
}

TEST_F(HttpsHook, ExemptionsTimeBlocksAndConntrack)
{
	auto unrecorded = tcp4(kClient, "203.0.113.80", 40000, 443);
	EXPECT_TRUE(out(unrecorded).accepted()); // unlisted device

	ASSERT_EQ(0, tblk_insert(sim::kClientMac.data()));
	EXPECT_TRUE(dropped(out(unrecorded)));
	router.conntrack(unrecorded)->white_mark = 1;
	EXPECT_TRUE(out(unrecorded).accepted());
	router.set_tracking(false);
	kmodel_log_clear();
	EXPECT_TRUE(dropped(out(unrecorded)));
	EXPECT_EQ(Lines{ "<3>[is_white_conn]: no conntrack!\n\n" }, kmodel_log());
	// A recorded flow without conntrack: dropped without a word or a request.
	resolve(kClient, kName, { kServer });
	kmodel_log_clear();
	EXPECT_TRUE(dropped(out(tcp4(kClient, kServer, 40000, 443))));
	EXPECT_EQ(Lines{}, kmodel_log());
	EXPECT_TRUE(requests().empty());
	router.set_tracking(true);

	// A live exemption passes everything, recorded or not.
	ASSERT_EQ(0, ublk_insert(sim::kClientMac.data(), "", 0));
	EXPECT_TRUE(out(unrecorded).accepted());
	router.conntrack(unrecorded)->white_mark = 0;
	EXPECT_TRUE(out(tcp4(kClient, kServer, 40000, 443)).accepted());
	EXPECT_TRUE(requests().empty());
	// Expired: deleted by the next packet, which is judged.
	router.advance(900000);
	EXPECT_TRUE(dropped(out(tcp4(kClient, kServer, 40000, 443))));
	EXPECT_EQ(1u, requests().size());
	int expired = 0;
	EXPECT_EQ(nullptr, ublk_get(sim::kClientMac.data(), &expired));
}

TEST_F(HttpsHook, WithWpOnPcJudgesOnlyTheSecondBridge)
{
	wp(true);
	resolve(kClient, kName, { kServer });
	ASSERT_EQ(0, tblk_insert(sim::kClientMac.data()));
	auto pkt = tcp4(kClient, kServer, 40000, 443);
	// From br0 WP decides: once it passes the server, PC does not look,
	// although the device is time-blocked.
	EXPECT_TRUE(dropped(out(pkt)));
	auto req = requests();
	ASSERT_EQ(1u, req.size());
	answer(req[0], kPass);
	EXPECT_TRUE(out(pkt).accepted());
	EXPECT_TRUE(requests().empty());
	// From br1 PC decides (WP exempts the second bridge).
	EXPECT_TRUE(dropped(router.forward(pkt, router.br1(), router.wan())));
	req = requests();
	ASSERT_EQ(1u, req.size());
	EXPECT_EQ(4u, req[0][4]);
}

TEST_F(HttpsHook, Ipv6RequestsCarryThePacketsAddresses)
{
	const char *c = "2001:db8:1::10";
	// Byte 12 of both addresses is 0: one bucket for either direction.
	const char *s = "2001:db8:2::443";
	out(udp6(c, "2001:4860::8888", 40001, 53, dns_query(1, kName, 28)));
	in(udp6("2001:4860::8888", c, 53, 40001, dns_response(1, kName, {}, { s })));
	ASSERT_EQ(1u, ssl6_records().size());

	router.neighbour(c, router.br0(), sim::kClientMac, NUD_REACHABLE, 0);
	EXPECT_TRUE(dropped(in(tcp6(s, c, 443, 40000))));
	auto req = requests();
	ASSERT_EQ(1u, req.size());
	// From the server: its address is the source of the request.
	EXPECT_EQ(sim::hex(expected_request({ 4, 10, addr6(s), addr6(c), "/", kName, sim::kClientMac })),
		  sim::hex(req[0]));
	EXPECT_TRUE(dropped(out(tcp6(c, s, 40000, 443))));
	EXPECT_EQ(sim::hex(expected_request({ 4, 10, addr6(c), addr6(s), "/", kName, sim::kClientMac })),
		  sim::hex(requests().at(0)));

	kmodel_log_clear();
	EXPECT_TRUE(in(tcp6(s, "2001:db8:1::99", 443, 40000)).accepted());
	EXPECT_EQ("<7>[https6_forward_hook]: nd_query failed.\n\n", kmodel_log().back());
	kmodel_log_clear();
	EXPECT_TRUE(out(tcp6(c, "ff0e::1", 40000, 443)).accepted());
	EXPECT_EQ("<7>[https6_forward_hook]: forward_hook6: IPv6 address is not unicast.\n\n",
		  kmodel_log().back());
}
