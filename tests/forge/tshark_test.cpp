// A second dissector judges the forged packets: tshark, with checksum
// validation on, must find every IPv4 header and TCP checksum good and
// read back the flags, sequence numbers and the redirect.
#include <gtest/gtest.h>

#include "tests/forge/fixture.h"

#include "forge/answer.h"
#include "forge/blkpage.h"
#include "forge/output.h"
#include "forge/rebuild.h"
#include "sim/pcap.h"
#include "support/tshark.h"

using namespace forge_test;

TEST_F(Forge, TsharkValidatesForgedSegments)
{
	if (!have_tshark())
		GTEST_SKIP() << "tshark is not installed: the wire-format cross-check needs it";

	const char *url = "http://block.example/deny?c=7";
	const sim::Tcp t = request(400, sim::ACK | sim::PSH);
	sim::Tcp s = request(100);
	std::swap(s.sport, s.dport);
	sim::Ip4 sip = client_ip();
	std::swap(sip.src, sip.dst);
	sim::Ip6 sip6 = client_ip6();
	std::swap(sip6.src, sip6.dst);

	struct sk_buff *req = rx(sim::ip4_tcp(client_ip({ 0x94, 0x04, 0, 0 }), t), 40);
	ASSERT_EQ(0, ack_client(req));
	ASSERT_EQ(0, send_blkpage(url, req));
	ASSERT_EQ(0, output_packet(rebuild_packet(req, 0, REBUILD_FIN_ACK, 1)));
	ASSERT_EQ(0, reset_server(rx(sim::ip4_tcp(sip, s))));
	struct sk_buff *req6 = rx(sim::ip6_tcp(client_ip6(), t));
	ASSERT_EQ(0, ack_client6(req6));
	ASSERT_EQ(0, send_blkpage6(url, req6));
	ASSERT_EQ(0, reset_server6(rx(sim::ip6_tcp(sip6, s))));

	std::vector<Bytes> frames;
	for (const auto &tx : r.sent())
		frames.push_back(tx.frame);
	std::string pcap = testing::TempDir() + "forged.pcap";
	ASSERT_TRUE(sim::pcap_write(pcap, frames, sim::PCAP_ETHERNET));
	TsharkRows rows;
	ASSERT_TRUE(tshark_fields(pcap, std::string(kTsharkCheckChecksums) + " -o tcp.relative_sequence_numbers:FALSE", "",
				  { "ip.checksum.status", "tcp.checksum.status", "tcp.flags", "tcp.seq", "tcp.ack",
				    "http.response.code", "http.location", "tcp.window_size_value" },
				  &rows));

	const std::string seq = std::to_string(t.ack), ack = std::to_string(t.seq + 400);
	const std::string sseq = std::to_string(s.ack);
	// ip.checksum.status / tcp.checksum.status: 1 is "Good".
	EXPECT_EQ((TsharkRows{
		{ "1", "1", "0x0010", seq, ack, "", "", "502" },
		{ "1", "1", "0x0018", seq, ack, "302", url, "65407" },
		{ "1", "1", "0x0011", seq, std::to_string(t.seq), "", "", "502" },
		{ "1", "1", "0x0004", sseq, "0", "", "", "502" },
		{ "", "1", "0x0010", seq, ack, "", "", "502" },
		{ "", "1", "0x0018", seq, ack, "302", url, "65407" },
		{ "", "1", "0x0010", sseq, std::to_string(s.seq + 100), "", "", "502" },
	}),
		  rows);
}
