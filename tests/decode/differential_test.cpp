// The fast decoders against the earlier byte-by-byte ones (reference.cpp)
// on random variations of real and built messages: the same result and
// every byte of the record the same, whatever the input.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "decode/reference.h"
#include "sim/pcap.h"

namespace {

using Bytes = std::vector<uint8_t>;

// DNS payloads of the capture (Ethernet, IPv4 and IPv6, UDP).
std::vector<Bytes> dns_seeds()
{
	std::vector<Bytes> frames, out;
	sim::PcapLink link;
	if (!sim::pcap_read(std::string(DNSHOOK_SOURCE_DIR) + "/tests/data/dns.pcap", &frames, &link))
		return out;
	for (const Bytes &f : frames) {
		size_t l4 = (f[12] == 0x86 && f[13] == 0xdd) ? 14 + 40 : 14 + (f[14] & 0xf) * 4;
		if (f.size() > l4 + 8)
			out.emplace_back(f.begin() + l4 + 8, f.end());
	}
	// Near the length limit: a question of 240 to 250 bytes and answers
	// whose owners add a label before a pointer back to it.
	for (int qlen : { 240, 246, 250 }) {
		Bytes m = { 0x12, 0x34, 0x81, 0x80, 0, 1, 0, 3, 0, 0, 0, 0 };
		for (int left = qlen; left > 0; left -= 50) {
			int n = std::min(left, 49);
			m.push_back(uint8_t(n));
			m.insert(m.end(), n, 'Q');
		}
		m.insert(m.end(), { 0, 0, 1, 0, 1 });
		for (int label : { 1, 4, 9 }) {
			m.push_back(uint8_t(label));
			m.insert(m.end(), label, 'o');
			m.insert(m.end(), { 0xc0, 12, 0, 1, 0, 1, 0, 0, 0, 60, 0, 4, 10, 0, 0, uint8_t(label) });
		}
		out.push_back(m);
	}
	return out;
}

// One random change: a byte set to a value that matters to the decoder,
// a cut, a pointer planted, or bytes inserted.
void mutate(Bytes &m, std::mt19937 &rng)
{
	static const uint8_t kValues[] = { 0, 1, 4, 5, 16, 28, 0x3f, 0x40, 0x50, 0x80, 0xc0, 0xc0, 0xff, 'A', 'z' };
	auto at = [&] { return m.empty() ? 0 : rng() % m.size(); };
	switch (rng() % 5) {
	case 0:
	case 1:
		if (!m.empty())
			m[at()] = kValues[rng() % sizeof(kValues)];
		break;
	case 2:
		m.resize(at());
		break;
	case 3:
		if (m.size() > 2) {
			size_t p = at() % (m.size() - 1);
			m[p] = 0xc0, m[p + 1] = uint8_t(rng() % (m.size() + 8));
		}
		break;
	default:
		m.insert(m.begin() + at(), rng() % 4 + 1, kValues[rng() % sizeof(kValues)]);
	}
}

// A request made of the pieces the decoder looks for, NULs included.
std::string random_request(std::mt19937 &rng)
{
	static const char *const kPieces[] = { "GET ", "PUT ", "HEAD ", "POST ", "Host: ", "host: ", "\r\n", "\r\n\r\n",
					       " ", "/path", "www.example.test", ":8080", "\r", "\n", "GE", "x" };
	std::string s = kPieces[rng() % 8 ? rng() % 4 : 4 + rng() % 12];
	for (int n = rng() % 40; n > 0; n--) {
		unsigned pick = rng() % 40;
		if (pick < 16)
			s += kPieces[pick];
		else if (pick == 16)
			s += '\0';
		else if (pick == 17)
			s += std::string(200 + rng() % 100, 'a');
		else
			s += char('a' + pick % 26);
	}
	return s;
}

} // namespace

TEST(DecoderDifferential, DnsAgreesWithTheByteByByteDecoder)
{
	std::vector<Bytes> seeds = dns_seeds();
	ASSERT_FALSE(seeds.empty()) << "tests/data/dns.pcap missing";
	std::mt19937 rng(16);
	int accepted = 0;
	for (int i = 0; i < 60000; i++) {
		Bytes m = seeds[rng() % seeds.size()];
		for (int k = rng() % 4; k >= 0; k--)
			mutate(m, rng);
		// Room behind the message: the first name byte is read unbounded.
		Bytes buf = m;
		buf.resize(m.size() + 16, 0xee);
		dns_info want, got;
		memset(&want, 0x5a, sizeof(want));
		memset(&got, 0x5a, sizeof(got));
		int rw = reference::old_decode_dns(buf.data(), int(m.size()), &want);
		int rg = decode_dns(buf.data(), int(m.size()), &got);
		ASSERT_EQ(rw, rg) << "message " << i << " of " << m.size() << " bytes";
		ASSERT_EQ(0, memcmp(&want, &got, sizeof(want))) << "message " << i << ": records differ";
		accepted += rg == 0;
	}
	EXPECT_GT(accepted, 10000) << "the variations should mostly stay decodable";
}

TEST(DecoderDifferential, HttpAgreesWithTheByteByByteDecoder)
{
	std::mt19937 rng(16);
	int results[5] = {};
	for (int i = 0; i < 60000; i++) {
		std::string req = random_request(rng);
		char buf[2048] = {};
		memcpy(buf, req.data(), std::min(req.size(), sizeof(buf) - 1));
		int len = int(std::min(req.size(), sizeof(buf) - 1));
		if (rng() % 8 == 0)
			len = int(rng() % (len + 1)); // a length short of the text
		http_info want, got;
		memset(&want, 0x5a, sizeof(want));
		memset(&got, 0x5a, sizeof(got));
		int rw = reference::old_decode_http(buf, len, &want);
		int rg = decode_http(buf, len, &got);
		ASSERT_EQ(rw, rg) << "request " << i << ": " << testing::PrintToString(req);
		ASSERT_EQ(0, memcmp(&want, &got, sizeof(want))) << "request " << i << ": " << testing::PrintToString(req);
		results[-rg]++;
	}
	for (int r = 0; r < 5; r++)
		EXPECT_GT(results[r], 100) << "result " << -r << " too rare to judge";
}
