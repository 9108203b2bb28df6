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

#include "capture.h"
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
	std::map<int, const CapturedSegment *> first;
	for (const auto &seg : segs) {
		if ((seg.dport == 80 || seg.dport == 8080) && !seg.payload.empty() && !first.count(seg.sport))
			first[seg.sport] = &seg;
	}
	ASSERT_EQ(first.size(), rows.size());

	for (const auto &r : rows) {
		SCOPED_TRACE("client port " + r[0] + " " + r[1]);
		const CapturedSegment *seg = first[std::stoi(r[0])];
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
