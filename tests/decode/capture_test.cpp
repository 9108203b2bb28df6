// The decoders against tshark on traffic of real programs: dig and wget
// talking to dnsmasq, curl, wget and a pipelining client talking to
// Python's http.server (tests/data/capture.sh made the files).
#include <gtest/gtest.h>

#include <arpa/inet.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "sim/pcap.h"
#include "support/tshark.h"

#include "decode/dns.h"
#include "decode/http.h"

namespace {

const std::string kData = std::string(DNSHOOK_SOURCE_DIR) + "/tests/data/";

std::vector<std::string> split(const std::string &s)  // tshark's "a,b,c"
{
	std::vector<std::string> out;
	std::istringstream in(s);
	for (std::string v; std::getline(in, v, ',');)
		out.push_back(v);
	return out;
}

std::string ascii_lower(std::string s)
{
	std::transform(s.begin(), s.end(), s.begin(), [](unsigned char c) { return std::tolower(c); });
	return s;
}

struct Segment {
	int frame; // 1-based, as tshark numbers frames
	uint16_t sport, dport;
	std::vector<uint8_t> payload; // trimmed to the IP and UDP lengths
};

// The UDP and TCP payloads of a pcap file of Ethernet frames (what tcpdump
// writes on a veth; no IPv6 extension headers). Empty when unreadable.
std::vector<Segment> read_capture(const std::string &path)
{
	std::vector<Segment> out;
	std::vector<sim::Bytes> frames;
	sim::PcapLink link;
	auto be16 = [](const uint8_t *p) { return uint16_t(p[0] << 8 | p[1]); };
	if (!sim::pcap_read(path, &frames, &link) || link != sim::PCAP_ETHERNET)
		return out;
	for (size_t i = 0; i < frames.size(); i++) {
		if (frames[i].size() < 14 + 40)
			continue;
		const uint8_t *f = frames[i].data() + 14;
		bool v4 = be16(f - 2) == 0x0800 && (f[0] >> 4) == 4;
		if (!v4 && be16(f - 2) != 0x86dd)
			continue;
		size_t l3len = v4 ? be16(f + 2) : 40u + be16(f + 4), l4off = v4 ? (f[0] & 0x0f) * 4u : 40;
		if (l3len > frames[i].size() - 14 || l4off + 20 > l3len)
			continue;
		const uint8_t *l4 = f + l4off;
		size_t l4len = l3len - l4off, begin = (l4[12] >> 4) * 4u, end = l4len;
		if ((v4 ? f[9] : f[6]) == 17)
			begin = 8, end = be16(l4 + 4) >= 8 ? be16(l4 + 4) : l4len + 1;
		else if ((v4 ? f[9] : f[6]) != 6)
			continue;
		if (begin <= end && end <= l4len)
			out.push_back({ int(i) + 1, be16(l4), be16(l4 + 2), std::vector<uint8_t>(l4 + begin, l4 + end) });
	}
	return out;
}

std::string addr_text(const dns_addr &a)
{
	char buf[INET6_ADDRSTRLEN];
	inet_ntop(a.family == 2 ? AF_INET : AF_INET6, a.addr, buf, sizeof(buf));
	return buf;
}

} // namespace

TEST(DecoderCaptures, DnsMessagesMatchTshark)
{
	if (!have_tshark())
		GTEST_SKIP() << "tshark is not installed (scripts/deps.sh installs it)";

	auto segs = read_capture(kData + "dns.pcap");
	ASSERT_EQ(segs.size(), 32u) << "tests/data/dns.pcap missing or unreadable";
	TsharkRows rows;
	ASSERT_TRUE(tshark_fields(kData + "dns.pcap", "", "dns",
				  { "frame.number", "dns.flags.response", "dns.flags.rcode", "dns.count.answers",
				    "dns.qry.name", "dns.qry.class", "dns.a", "dns.aaaa" },
				  &rows));
	ASSERT_EQ(rows.size(), segs.size());

	int responses_with_addrs = 0;
	for (size_t i = 0; i < segs.size(); i++) {
		const auto &seg = segs[i];
		const auto &r = rows[i];
		ASSERT_EQ(std::stoi(r[0]), seg.frame);
		SCOPED_TRACE("frame " + r[0] + " " + r[4]);

		bool response = r[1] == "1" || r[1] == "True";
		int rcode = r[2].empty() ? 0 : std::stoi(r[2]), ancount = std::stoi(r[3]);
		bool in_class = std::stoi(r[5], nullptr, 16) == 1;
		auto a = split(r[6]), aaaa = split(r[7]);

		int expected = 0;
		if (response && (rcode != 0 || ancount < 1 || ancount > 29))
			expected = -1;

		dns_info info;
		memset(&info, 0, sizeof(info));
		int ret = decode_dns(seg.payload.data(), (int)seg.payload.size(), &info);
		ASSERT_EQ(ret, expected);
		u32 kind = 0;
		EXPECT_EQ(is_valid_dns(seg.payload.data(), (int)seg.payload.size(), &kind), expected == 0 ? 1u : 0u);
		if (ret < 0)
			continue;
		EXPECT_EQ(kind, response ? 2u : 1u);
		EXPECT_EQ(std::string(info.name), in_class ? ascii_lower(r[4]) : "");
		if (!response || !in_class) {
			EXPECT_EQ(info.count, 0);
			continue;
		}
		EXPECT_EQ(info.count, ancount);

		std::vector<std::string> got_a, got_aaaa;
		for (const auto &slot : info.addrs) {
			if (slot.family == 2)
				got_a.push_back(addr_text(slot));
			else if (slot.family == 10)
				got_aaaa.push_back(addr_text(slot));
			else
				EXPECT_EQ(slot.family, 0);
		}
		EXPECT_EQ(got_a, a);
		EXPECT_EQ(got_aaaa, aaaa);
		if (!a.empty() || !aaaa.empty())
			responses_with_addrs++;
	}
	EXPECT_GE(responses_with_addrs, 10);
}

TEST(DecoderCaptures, HttpRequestsMatchTshark)
{
	if (!have_tshark())
		GTEST_SKIP() << "tshark is not installed (scripts/deps.sh installs it)";

	auto segs = read_capture(kData + "http.pcap");
	ASSERT_FALSE(segs.empty()) << "tests/data/http.pcap missing or unreadable";
	TsharkRows rows;
	ASSERT_TRUE(tshark_fields(kData + "http.pcap", "", "http.request",
				  { "tcp.srcport", "http.request.uri", "http.host" }, &rows));
	ASSERT_EQ(rows.size(), 12u);

	// The forward hooks decode the first data segment of each connection.
	std::map<int, const Segment *> first;
	for (const auto &seg : segs) {
		if ((seg.dport == 80 || seg.dport == 8080) && !seg.payload.empty() && !first.count(seg.sport))
			first[seg.sport] = &seg;
	}
	ASSERT_EQ(first.size(), rows.size());

	for (const auto &r : rows) {
		SCOPED_TRACE("client port " + r[0] + " " + r[1]);
		const Segment *seg = first[std::stoi(r[0])];
		ASSERT_NE(seg, nullptr);
		// Pipelined requests: the last request line and Host line win.
		auto urls = split(r[1]), hosts = split(r[2]);
		ASSERT_FALSE(urls.empty() || hosts.empty());
		std::string url = urls.back(), host = hosts.back();

		// As the IPv6 hook hands it over: the bytes, a NUL behind them.
		std::vector<char> buf(seg->payload.begin(), seg->payload.end());
		buf.push_back('\0');
		http_info info;
		memset(&info, 0, sizeof(info));
		ASSERT_EQ(decode_http(buf.data(), (int)seg->payload.size(), &info), 0);
		EXPECT_EQ(std::string(info.url), url);
		EXPECT_EQ(std::string(info.host), host);

		// As the IPv4 hook builds it: the text and "\r\n\r\n" in a
		// 2048-byte zero-filled buffer.
		char req_buf[2048] = {};
		int req_len = snprintf(req_buf, 2047, "%s\r\n\r\n", std::string(buf.data()).c_str());
		memset(&info, 0, sizeof(info));
		ASSERT_EQ(decode_http(req_buf, req_len, &info), 0);
		EXPECT_EQ(std::string(info.url), url);
		EXPECT_EQ(std::string(info.host), host);
	}
}
