// The fast decoders against the earlier byte-by-byte ones (reference.cpp)
// on hand-built corner cases (header checks, name case and lengths,
// compression pointers, answer slots, request lines), on every shorter
// length of them, and on random variations of those and of real messages:
// the same result and every byte of the record the same, whatever the input.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "decode/reference.h"
#include "sim/packet.h"
#include "sim/pcap.h"

namespace {

using Bytes = std::vector<uint8_t>;

struct Msg {
	Bytes b;

	Msg &u8(unsigned v) { b.push_back((uint8_t)v); return *this; }
	Msg &u16(unsigned v) { return u8(v >> 8).u8(v & 0xff); }
	Msg &raw(const std::string &s) { b.insert(b.end(), s.begin(), s.end()); return *this; }
	Msg &name(const std::string &dotted) // labels, then the root label
	{
		for (size_t start = 0, dot; start < dotted.size(); start = dot + 1) {
			dot = std::min(dotted.find('.', start), dotted.size());
			u8(dot - start).raw(dotted.substr(start, dot - start));
		}
		return u8(0);
	}
	Msg &ptr(unsigned off) { return u16(0xc000 | off); }
	Msg &question(const std::string &n, unsigned type = 1, unsigned klass = 1) { return name(n).u16(type).u16(klass); }
	Msg &rr(unsigned type, unsigned klass, const Bytes &rdata) // owner: the question
	{
		ptr(12).u16(type).u16(klass).u16(0).u16(300).u16(rdata.size());
		b.insert(b.end(), rdata.begin(), rdata.end());
		return *this;
	}
};

const unsigned kQuery = 0x0100, kResponse = 0x8180;
const Bytes kV4 = { 10, 53, 1, 10 };
const Bytes kV6 = { 0xfd, 0, 0, 0x53, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x10 };

Msg msg(unsigned flags, unsigned qd, unsigned an)
{
	Msg m;
	return m.u16(0x1234).u16(flags).u16(qd).u16(an).u16(0).u16(0);
}

// Messages at the decoder's limits, one concern each.
std::vector<Bytes> dns_corners()
{
	std::vector<Msg> m;
	// Header checks: opcode, question count, answer count 29/30/257, rcode.
	struct { unsigned flags, qd, an; } heads[] = {
		{ kQuery, 1, 0 }, { kQuery | 0x0800, 1, 0 }, { kQuery | 0x1000, 1, 0 }, { kQuery, 0, 0 }, { kQuery, 2, 0 },
		{ kQuery | 0x0003, 1, 50 }, { kQuery | 0x07b0, 1, 0 }, { kResponse, 1, 0 }, { kResponse, 1, 29 },
		{ kResponse, 1, 30 }, { kResponse, 1, 0x101 }, { kResponse | 3, 1, 1 }, { kResponse | 0x0800, 1, 1 },
	};
	for (auto &h : heads) {
		m.push_back(msg(h.flags, h.qd, h.an).question("a.test"));
		for (int i = 0; i < 30; i++)
			m.back().rr(1, 1, kV4);
	}
	m.push_back(msg(kQuery, 1, 0));
	m.push_back(msg(kQuery, 1, 0).u8(0));
	// Names: case folding over every byte (Latin-1 capitals too), class CH,
	// 254 and 255 characters, long plain labels, a label starting with NUL.
	std::string label;
	for (int c = 2; c < 256; c++)
		if (c != '.')
			label += (char)c;
	m.push_back(msg(kQuery, 1, 7).question("WwW.ExAmPlE.TeSt"));
	m.push_back(msg(kQuery, 1, 0).u8(126).raw(label.substr(0, 126)).u8(127).raw(label.substr(126)).u8(0).u16(1).u16(1));
	m.push_back(msg(kResponse, 1, 1).question("version.bind", 16, 3).rr(16, 3, { 4, 't', 'e', 's', 't' }));
	std::string n254 = std::string(63, 'a') + "." + std::string(63, 'b') + "." + std::string(63, 'c') + "." +
			   std::string(62, 'd');
	m.push_back(msg(kQuery, 1, 0).question(n254));
	m.push_back(msg(kQuery, 1, 0).question(n254 + "d"));
	m.push_back(msg(kQuery, 1, 0).question(std::string(0x50, 'x') + "." + std::string(191 - 0x50 - 1, 'y')));
	m.push_back(msg(kQuery, 1, 0).question(std::string(191, 'z')));
	m.push_back(msg(kQuery, 1, 0).u8(2).u8(0).u8('a').u8(0).u16(1).u16(1));
	// Pointers: to itself, chains of 255 and 256, after labels, at the end.
	m.push_back(msg(kQuery, 1, 0).ptr(12).u16(1).u16(1));
	for (int n : { 255, 256 }) {
		m.push_back(msg(kQuery, 1, 0));
		for (int i = 0; i < n; i++)
			m.back().ptr(12 + 2 * (i + 1));
		m.back().question("end.test");
	}
	Msg target;
	target.name("Example.test");
	m.push_back(msg(kResponse, 1, 1).u8(3).raw("WWW").ptr(34).u16(1).u16(1).rr(5, 1, target.b));
	m.push_back(msg(kQuery, 1, 0).ptr(15).u8(0));
	// Answer slots: CNAME then A and AAAA; wrong sizes and classes; 29
	// answers; an RDLENGTH past the end; fewer records than counted; a
	// question name ending in a pointer into an answer's RDATA.
	m.push_back(msg(kResponse, 1, 4).question("alias.test").rr(5, 1, { 3, 'w', 'w', 'w', 0xc0, 12 }));
	m.back().rr(1, 1, kV4).rr(1, 1, { 10, 53, 1, 11 }).rr(28, 1, kV6);
	m.push_back(msg(kResponse, 1, 5).question("s.test").rr(1, 1, kV6).rr(28, 1, kV4).rr(1, 3, kV4).rr(28, 255, kV6));
	m.back().rr(28, 1, kV6);
	m.push_back(msg(kResponse, 1, 29).question("many.test"));
	for (int i = 0; i < 29; i++)
		m.back().rr(1, 1, { 10, 0, 0, (uint8_t)i });
	m.push_back(msg(kResponse, 1, 2).question("p.test").rr(1, 1, kV4).ptr(12).u16(1).u16(1).u16(0).u16(1).u16(4).u8(1));
	m.push_back(msg(kResponse, 1, 3).question("h.test").rr(1, 1, kV4).rr(28, 1, kV6));
	m.push_back(msg(kResponse, 1, 2).u8(1).u8('q').ptr(48).u16(1).u16(1).rr(1, 1, kV4));
	m.back().rr(5, 1, { 4, 't', 'e', 's', 't', 0 });
	m.push_back(msg(kResponse, 1, 3).question("cut.example.test").rr(5, 1, { 1, 'x', 0xc0, 12 }).rr(1, 1, kV4));
	m.back().rr(28, 1, kV6);
	std::vector<Bytes> out;
	for (const Msg &x : m)
		out.push_back(x.b);
	return out;
}

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
	for (const Bytes &c : dns_corners())
		out.push_back(c);
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

// Both decoders of one kind on the same input, their records first filled
// with the same junk: the result, or -100 when they differ.
template <typename Info, typename In>
int agree(int (*old)(In, int, Info *), int (*now)(In, int, Info *), In in, int len, const std::string &what)
{
	Info want, got;
	memset(&want, 0x5a, sizeof(want));
	memset(&got, 0x5a, sizeof(got));
	int rw = old(in, len, &want), rg = now(in, len, &got);
	EXPECT_EQ(rw, rg) << what;
	EXPECT_EQ(0, memcmp(&want, &got, sizeof(want))) << what << ": records differ";
	return rw != rg || memcmp(&want, &got, sizeof(want)) ? -100 : rg;
}

// The DNS decoders on the first len bytes of buf; buf holds room behind
// the message, as the first name byte is read unbounded.
int dns_agree(const Bytes &buf, int len, const std::string &what)
{
	return agree(reference::old_decode_dns, decode_dns, buf.data(), len, what);
}

// The HTTP decoders on the text in a zero-filled 2048-byte buffer, which
// neither may change.
int http_agree(const std::string &req, int len, const std::string &what)
{
	char buf[2048] = {};
	const size_t n = std::min(req.size(), sizeof(buf) - 1);
	memcpy(buf, req.data(), n);
	int r = agree(reference::old_decode_http, decode_http, (const char *)buf, len,
		      what + ": " + testing::PrintToString(req));
	EXPECT_EQ(std::string(buf, n), req.substr(0, n)) << "input modified";
	return r;
}

// Requests at the decoder's corners: methods, lengths short of the text,
// line ends, NULs, the exact "Host: " at a line start, pipelining where
// later lines win, body lines, the byte after a carriage return, and
// fields around the 255-character cut.
std::vector<std::pair<std::string, int>> http_corners()
{
	const std::string cut = "GET /big HTTP/1.1\r\nHost: h\r\n\r\n" + std::string(20, 'p') + "\r\n\r\n";
	const std::string body = "POST /f HTTP/1.1\r\nHost: real\r\n\r\nHost: body\r\nPUT /in-body\r\n";
	std::vector<std::pair<std::string, int>> c = {
		{ "GET /index.html HTTP/1.1\r\nHost: www.example.test\r\nAccept: */*\r\n\r\n", 0 },
		{ "PUT /p HTTP/1.1\r\nHost: h\r\n\r\n", 0 }, { "HEAD /h HTTP/1.1\r\nHost: h\r\n\r\n", 0 },
		{ "POST /f HTTP/1.1\r\nHost: h\r\n\r\nbody", 0 }, { "GET / HTTP/1.1\r\n\r\n", 0 },
		{ "GET / HTTP/1.1\r\n\r\n", 17 }, { "GET / HTTP/1.1\r\n\r\n", -7 },
		{ "OPTIONS / HTTP/1.1\r\nHost: h\r\n\r\n", 0 }, { "get / HTTP/1.1\r\nHost: h\r\n\r\n", 0 },
		{ " GET / HTTP/1.1\r\nHost: h\r\n\r\n", 0 }, { "GET / HTTP/1.1\r\nHost: www.example.test\r\n", 0 },
		{ "GET / HTTP/1.1\nHost: www.example.test\n\n", 0 },
		{ std::string("GET / HTTP/1.1\r\nHost: a\0b\r\n\r\n", 30), 0 },
		{ "GET /nohost HTTP/1.1\r\nAccept: */*\r\n\r\n", 0 },
		{ "GET / HTTP/1.1\r\nHost: WWW.Example.test:8080  \r\n\r\n", 0 },
		{ "GET / HTTP/1.1\r\nHost: \r\n\r\n", 0 },
		{ "GET http://proxied.test/a?b=c HTTP/1.1\r\nHost: other.test\r\n\r\n", 0 },
		{ "GET  /x HTTP/1.1\r\nHost: h.test\r\n\r\n", 0 }, { "GET /no-version\r\nHost: h.test\r\n\r\n", 0 },
		{ "GET / HTTP/1.1\r\nhost: h\r\nHOST: h\r\nHost:h\r\n Host: h\r\nX-Host: h\r\n\r\n", 0 },
		{ "GET /1 HTTP/1.1\r\nHost: one\r\n\r\nGET /2 HTTP/1.1\r\nHost: two\r\n\r\n", 0 },
		{ "GET /1 HTTP/1.1\r\nHost: one\r\n\r\nHEAD /2 HTTP/1.1\r\n\r\n", 0 }, { body, 0 }, { body, 34 },
		{ "GET Host: odd.test HTTP/1.1\r\n\r\n", 0 }, { "GET /a HTTP/1.1\rXHost: x.test\r\n\r\n", 0 },
		{ cut.substr(0, cut.size() - 3), 5000 },
		{ "GET /" + std::string(100, 'a') + " HTTP/1.1\r\nHost: h\r\n\r\nGET /b\r\n", 0 },
	};
	for (size_t n : { 254u, 255u, 256u, 300u, 1500u })
		c.push_back({ "GET /" + std::string(n - 1, 'u') + " HTTP/1.1\r\nHost: " + std::string(n, 'h') + "\r\n\r\n", 0 });
	return c;
}

} // namespace

TEST(DecoderDifferential, DnsAgreesWithTheByteByByteDecoder)
{
	// Every corner case at every length, the whole message behind.
	int results[2] = {};
	for (const Bytes &m : dns_corners()) {
		Bytes buf = m;
		buf.resize(m.size() + 16, 0xee);
		for (int len = int(m.size()); len >= 0; len--)
			ASSERT_NE(-100, dns_agree(buf, len, "corner " + sim::hex(m) + " at " + std::to_string(len)));
		results[dns_agree(buf, int(m.size()), "") == 0]++;
	}
	EXPECT_GT(results[0], 10);
	EXPECT_GT(results[1], 10);

	std::vector<Bytes> seeds = dns_seeds();
	ASSERT_GT(seeds.size(), dns_corners().size()) << "tests/data/dns.pcap missing";
	std::mt19937 rng(16);
	int accepted = 0;
	for (int i = 0; i < 60000; i++) {
		Bytes m = seeds[rng() % seeds.size()];
		for (int k = rng() % 4; k >= 0; k--)
			mutate(m, rng);
		Bytes buf = m;
		buf.resize(m.size() + 16, 0xee);
		int r = dns_agree(buf, int(m.size()), "message " + std::to_string(i));
		ASSERT_NE(-100, r);
		accepted += r == 0;
	}
	EXPECT_GT(accepted, 10000) << "the variations should mostly stay decodable";
}

TEST(DecoderDifferential, HttpAgreesWithTheByteByByteDecoder)
{
	int results[5] = {};
	for (const auto &[req, len] : http_corners()) {
		int full = len ? len : int(req.size());
		ASSERT_NE(-100, http_agree(req, full, "corner"));
		for (int l = std::min(full, int(req.size())) - 1; l >= 0; l--)
			ASSERT_NE(-100, http_agree(req, l, "corner cut at " + std::to_string(l)));
	}
	std::mt19937 rng(16);
	for (int i = 0; i < 60000; i++) {
		std::string req = random_request(rng);
		int len = int(std::min(req.size(), size_t(2047)));
		if (rng() % 8 == 0)
			len = int(rng() % (len + 1)); // a length short of the text
		int r = http_agree(req, len, "request " + std::to_string(i));
		ASSERT_NE(-100, r);
		results[-r]++;
	}
	for (int r = 0; r < 5; r++)
		EXPECT_GT(results[r], 100) << "result " << -r << " too rare to judge";
}
