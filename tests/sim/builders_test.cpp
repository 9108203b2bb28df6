// The packet builders judged by tshark (the simulated router itself is
// followed by every hook test).
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "sim/pcap.h"
#include "sim/router.h"
#include "support/tshark.h"

// Designated initializers leave the other fields at their defaults.
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"

namespace {

using namespace sim;

// tshark's view of each packet: checksum statuses (1 good, 0 bad) and a
// few decoded fields, one tab-separated line per packet.
std::vector<std::string> tshark_lines(const std::vector<Bytes> &pkts, PcapLink link,
				      const std::vector<std::string> &fields)
{
	std::string path = std::string(DNSHOOK_BINARY_DIR) + "/builders_test.pcap";
	EXPECT_TRUE(pcap_write(path, pkts, link));
	TsharkRows rows;
	EXPECT_TRUE(tshark_fields(path, kTsharkCheckChecksums, "", fields, &rows));
	std::vector<std::string> lines;
	for (const auto &row : rows) {
		std::string l;
		for (size_t i = 0; i < row.size(); i++)
			l += (i ? "\t" : "") + row[i];
		lines.push_back(l);
	}
	return lines;
}

TEST(Builders, TsharkValidatesChecksumsAndFields)
{
	if (!have_tshark())
		GTEST_SKIP() << "tshark is not installed; builder output not cross-checked";
	Ip4 v4{ .src = ip4("192.168.1.10"), .dst = ip4("93.184.216.34"), .options = { 0x94, 0x04, 0x00, 0x00 } }; // router alert
	Tcp t{ .sport = 40001, .seq = 0x11223344, .ack = 0x55667788, .flags = PSH | ACK,
	       .options = { 0x02, 0x04, 0x05, 0xb4, 0x01, 0x01, 0x04, 0x02 }, .payload = Bytes(201, 'a') };
	Udp u{ .payload = Bytes(33, 'd') };
	Ip6 v6{ .src = ip6("2001:db8::1"), .dst = ip6("2606:2800:220:1::1"), .ext = { { 0, Bytes(6) }, { 60, Bytes(14) } } };
	Tcp bad = t;
	bad.bad_checksum = true;
	Ip4 badip = v4;
	badip.bad_checksum = true;
	Udp badu = u;
	badu.bad_checksum = true;

	std::vector<Bytes> pkts = {ip4_tcp(v4, t), ip4_udp(v4, u), ip6_tcp(v6, t), ip6_udp(v6, u),
				   ip4_tcp(v4, bad), ip4_tcp(badip, t), ip6_udp(v6, badu)};
	auto rows = tshark_lines(pkts, PCAP_RAW_IP,
				 { "ip.checksum.status", "tcp.checksum.status", "udp.checksum.status", "tcp.seq_raw",
				   "tcp.ack_raw", "tcp.len", "ip.hdr_len", "ipv6.nxt" });
	std::vector<std::string> want = {
		"1\t1\t\t287454020\t1432778632\t201\t24\t",
		"1\t\t1\t\t\t\t24\t",
		"\t1\t\t287454020\t1432778632\t201\t\t0",
		"\t\t1\t\t\t\t\t0",
		"1\t0\t\t287454020\t1432778632\t201\t24\t",
		"0\t1\t\t287454020\t1432778632\t201\t24\t",
		"\t\t0\t\t\t\t\t0",
	};
	EXPECT_EQ(want, rows);

	// Framed packets decode as Ethernet with the right addresses.
	auto eth = tshark_lines({ether(kBr0Mac, kClientMac, pkts[0]), ether(kBr0Mac, kClientMac, pkts[2])},
				PCAP_ETHERNET, { "eth.src", "eth.type", "tcp.checksum.status" });
	EXPECT_EQ((std::vector<std::string>{"00:11:22:33:44:55\t0x0800\t1", "00:11:22:33:44:55\t0x86dd\t1"}), eth);
}

} // namespace
