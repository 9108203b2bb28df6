// The pcap reader: what the writer wrote comes back in every classic
// variant, and damaged files are refused without reading past their end.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "sim/pcap.h"

namespace {

using namespace sim;

// One file per test: ctest runs tests side by side.
std::string scratch(const char *name) { return std::string(DNSHOOK_BINARY_DIR) + "/pcap_test_" + name + ".pcap"; }

Bytes file_bytes(const std::string &path)
{
	std::ifstream f(path, std::ios::binary);
	return Bytes(std::istreambuf_iterator<char>(f), {});
}

void put_file(const std::string &path, const Bytes &b)
{
	std::ofstream(path, std::ios::binary | std::ios::trunc).write((const char *)b.data(), b.size());
}

// The file with every header field byte-swapped (a big-endian machine's).
Bytes swapped(const Bytes &le)
{
	Bytes b = le;
	auto swap = [&](size_t at, size_t n) { std::reverse(b.begin() + at, b.begin() + at + n); };
	swap(0, 4), swap(4, 2), swap(6, 2);
	for (size_t at = 8; at < 24; at += 4)
		swap(at, 4);
	for (size_t pos = 24; pos + 16 <= b.size(); pos += 16 + (le[pos + 8] | le[pos + 9] << 8))
		for (size_t at = pos; at < pos + 16; at += 4)
			swap(at, 4);
	return b;
}

TEST(Pcap, ReadsBackWhatWasWrittenInEveryByteOrder)
{
	const std::string path = scratch("orders");
	std::vector<Bytes> pkts = { Bytes{ 0x45, 1, 2 }, Bytes{}, Bytes(1500, 0xab) };
	ASSERT_TRUE(pcap_write(path, pkts, PCAP_RAW_IP));
	const Bytes le = file_bytes(path);
	Bytes ns = le; // nanosecond timestamps: only the magic differs
	ns[0] = 0x4d, ns[1] = 0x3c;
	for (const Bytes &file : { le, ns, swapped(le) }) {
		put_file(path, file);
		std::vector<Bytes> got;
		PcapLink link = PCAP_ETHERNET;
		ASSERT_TRUE(pcap_read(path, &got, &link));
		EXPECT_EQ(pkts, got);
		EXPECT_EQ(PCAP_RAW_IP, link);
	}
	remove(path.c_str());
}

TEST(Pcap, DamagedFilesAreRefused)
{
	const std::string path = scratch("damaged");
	ASSERT_TRUE(pcap_write(path, { Bytes(60, 1), Bytes(70, 2) }, PCAP_ETHERNET));
	const Bytes good = file_bytes(path);
	ASSERT_EQ(24u + 16 + 60 + 16 + 70, good.size());
	const size_t first_end = 24 + 16 + 60;
	std::vector<Bytes> got;
	PcapLink link;
	// Cut anywhere inside a record: refused, the complete records before
	// the cut kept; cut between records: a shorter capture.
	for (size_t len = 24; len < good.size(); len++) {
		put_file(path, Bytes(good.begin(), good.begin() + len));
		EXPECT_EQ(len == 24 || len == first_end, pcap_read(path, &got, &link)) << len;
		EXPECT_EQ(len < first_end ? 0u : 1u, got.size()) << len;
	}
	struct {
		size_t at;
		std::vector<uint8_t> bytes;
		const char *what;
	} damages[] = {
		{ first_end + 8, { 71 }, "a record length one byte past the end" },
		{ 24 + 8, { 0xff, 0xff, 0xff, 0xff }, "a record length near 4 GiB" },
		{ 0, { 0x0a }, "not a pcap file" },
	};
	for (auto &d : damages) {
		Bytes b = good;
		std::copy(d.bytes.begin(), d.bytes.end(), b.begin() + d.at);
		put_file(path, b);
		EXPECT_FALSE(pcap_read(path, &got, &link)) << d.what;
	}
	put_file(path, Bytes(good.begin(), good.begin() + 23));
	EXPECT_FALSE(pcap_read(path, &got, &link));
	EXPECT_FALSE(pcap_read(path + ".missing", &got, &link));
	remove(path.c_str());
}

} // namespace
