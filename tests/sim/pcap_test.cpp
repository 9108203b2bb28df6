// The pcap reader: what the writer wrote comes back, the other classic
// variants are understood, and damaged files are refused without reading
// past their end.
#include <gtest/gtest.h>

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
	std::ofstream f(path, std::ios::binary | std::ios::trunc);
	ASSERT_TRUE(f.write((const char *)b.data(), b.size()).flush());
}

// The file with every 32-bit header field byte-swapped (a capture taken
// on a big-endian machine).
Bytes swapped(const Bytes &le)
{
	Bytes b = le;
	auto swap32 = [&](size_t at) { std::swap(b[at], b[at + 3]), std::swap(b[at + 1], b[at + 2]); };
	auto swap16 = [&](size_t at) { std::swap(b[at], b[at + 1]); };
	swap32(0);
	swap16(4);
	swap16(6);
	for (size_t at = 8; at < 24; at += 4)
		swap32(at);
	for (size_t pos = 24; pos + 16 <= b.size();) {
		size_t caplen = le[pos + 8] | le[pos + 9] << 8 | le[pos + 10] << 16 | (size_t)le[pos + 11] << 24;
		for (size_t at = pos; at < pos + 16; at += 4)
			swap32(at);
		pos += 16 + caplen;
	}
	return b;
}

TEST(Pcap, ReadsBackWhatWasWrittenInEveryByteOrder)
{
	const std::string kPath = scratch("orders");
	std::vector<Bytes> pkts = { Bytes{ 0x45, 1, 2 }, Bytes{}, Bytes(1500, 0xab) };
	ASSERT_TRUE(pcap_write(kPath, pkts, PCAP_RAW_IP));
	const Bytes le = file_bytes(kPath);

	std::vector<Bytes> got;
	PcapLink link = PCAP_ETHERNET;
	ASSERT_TRUE(pcap_read(kPath, &got, &link));
	EXPECT_EQ(pkts, got);
	EXPECT_EQ(PCAP_RAW_IP, link);

	Bytes ns = le; // nanosecond timestamps: only the magic differs
	ns[0] = 0x4d;
	ns[1] = 0x3c;
	put_file(kPath, ns);
	ASSERT_TRUE(pcap_read(kPath, &got, &link));
	EXPECT_EQ(pkts, got);

	put_file(kPath, swapped(le));
	link = PCAP_ETHERNET;
	ASSERT_TRUE(pcap_read(kPath, &got, &link));
	EXPECT_EQ(pkts, got);
	EXPECT_EQ(PCAP_RAW_IP, link);

	put_file(kPath, Bytes(le.begin(), le.begin() + 24)); // no records
	ASSERT_TRUE(pcap_read(kPath, &got, &link));
	EXPECT_TRUE(got.empty());
	remove(kPath.c_str());
}

TEST(Pcap, DamagedFilesAreRefused)
{
	const std::string kPath = scratch("damaged");
	std::vector<Bytes> pkts = { Bytes(60, 1), Bytes(70, 2) };
	ASSERT_TRUE(pcap_write(kPath, pkts, PCAP_ETHERNET));
	const Bytes good = file_bytes(kPath);
	ASSERT_EQ(24u + 16 + 60 + 16 + 70, good.size());
	std::vector<Bytes> got;
	PcapLink link;

	// Cut anywhere inside a record header or a record: refused, the
	// complete records before the cut kept. Cut between records: a
	// shorter capture.
	const size_t first_end = 24 + 16 + 60;
	for (size_t len = 25; len < good.size(); len++) {
		SCOPED_TRACE(len);
		put_file(kPath, Bytes(good.begin(), good.begin() + len));
		EXPECT_EQ(len == first_end, pcap_read(kPath, &got, &link));
		EXPECT_EQ(len < first_end ? 0u : 1u, got.size());
	}

	// A record length reaching one byte past the end, or near 4 GiB.
	Bytes longer = good;
	longer[first_end + 8] = 71;
	put_file(kPath, longer);
	EXPECT_FALSE(pcap_read(kPath, &got, &link));
	Bytes huge = good;
	huge[24 + 8] = huge[24 + 9] = huge[24 + 10] = huge[24 + 11] = 0xff;
	put_file(kPath, huge);
	EXPECT_FALSE(pcap_read(kPath, &got, &link));
	EXPECT_TRUE(got.empty());

	// Not a pcap file, a short header, no file at all.
	Bytes other = good;
	other[0] = 0x0a;
	put_file(kPath, other);
	EXPECT_FALSE(pcap_read(kPath, &got, &link));
	put_file(kPath, Bytes(good.begin(), good.begin() + 23));
	EXPECT_FALSE(pcap_read(kPath, &got, &link));
	EXPECT_FALSE(pcap_read(kPath + ".missing", &got, &link));
	remove(kPath.c_str());
}

} // namespace
