// decode_dns, is_valid_dns and extract_name on hand-built messages: header
// checks, name reading (case, lengths, pointers), answer slots and bounds.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "decode/dns.h"

namespace {

struct Msg {
	std::vector<uint8_t> b;

	Msg &u8(unsigned v) { b.push_back((uint8_t)v); return *this; }
	Msg &u16(unsigned v) { return u8(v >> 8).u8(v & 0xff); }
	Msg &raw(const std::string &s) { b.insert(b.end(), s.begin(), s.end()); return *this; }
	Msg &header(unsigned flags, unsigned qd, unsigned an) { return u16(0x1234).u16(flags).u16(qd).u16(an).u16(0).u16(0); }
	Msg &name(const std::string &dotted)  // labels, then the root label
	{
		for (size_t start = 0, dot; start < dotted.size(); start = dot + 1) {
			dot = std::min(dotted.find('.', start), dotted.size());
			u8(dot - start).raw(dotted.substr(start, dot - start));
		}
		return u8(0);
	}
	Msg &ptr(unsigned off) { return u16(0xc000 | off); }
	Msg &question(const std::string &n, unsigned type = 1, unsigned klass = 1) { return name(n).u16(type).u16(klass); }
	Msg &rr(unsigned type, unsigned klass, const std::vector<uint8_t> &rdata)  // owner: the question
	{
		ptr(12).u16(type).u16(klass).u16(0).u16(300).u16(rdata.size());
		b.insert(b.end(), rdata.begin(), rdata.end());
		return *this;
	}
	int size() const { return (int)b.size(); }
};

const unsigned kQuery = 0x0100, kResponse = 0x8180;

Msg msg(unsigned flags, unsigned qd, unsigned an)
{
	Msg m;
	return m.header(flags, qd, an);
}
const std::vector<uint8_t> kV4 = { 10, 53, 1, 10 };
const std::vector<uint8_t> kV6 = { 0xfd, 0, 0, 0x53, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x10 };
const dns_addr kEmpty = {};

int decode(const Msg &m, dns_info *info, int len = -1)
{
	memset(info, 0, sizeof(*info));
	return decode_dns(m.b.data(), len < 0 ? m.size() : len, info);
}

// The name at offset off, "!" when extract_name fails.
std::string name_at(const Msg &m, size_t off, size_t *end = nullptr)
{
	char out[256] = {};
	const u8 *cursor = m.b.data() + off;
	if (!extract_name(m.b.data(), m.size(), &cursor, out))
		return "!";
	if (end)
		*end = cursor - m.b.data();
	return out;
}

} // namespace

TEST(DnsDecoder, HeaderChecks)
{
	struct Case { unsigned flags, qd, an; int want; const char *what; } cases[] = {
		{ kQuery, 1, 0, 0, "plain query" },
		{ kQuery | 0x0800, 1, 0, -1, "OPCODE 1" },
		{ kQuery | 0x1000, 1, 0, -1, "OPCODE 2" },
		{ kQuery, 0, 0, -1, "QDCOUNT 0" },
		{ kQuery, 2, 0, -1, "QDCOUNT 2" },
		{ kQuery | 0x0003, 1, 50, 0, "query: ANCOUNT and RCODE not looked at" },
		{ kQuery | 0x07b0, 1, 0, 0, "AA TC RD RA Z not looked at" },
		{ kResponse, 1, 0, -1, "ANCOUNT 0" },
		{ kResponse, 1, 29, 0, "ANCOUNT 29" },
		{ kResponse, 1, 30, -1, "ANCOUNT 30" },
		{ kResponse, 1, 0x101, -1, "ANCOUNT 257 (low byte 1)" },
		{ kResponse | 3, 1, 1, -1, "NXDOMAIN" },
		{ kResponse | 0x0800, 1, 1, -1, "response OPCODE 1" },
	};
	for (const auto &c : cases) {
		Msg m = msg(c.flags, c.qd, c.an).question("a.test");
		for (unsigned i = 0; i < 30; i++)
			m.rr(1, 1, kV4);
		dns_info info;
		u32 kind = 0;
		EXPECT_EQ(decode(m, &info), c.want) << c.what;
		EXPECT_EQ(is_valid_dns(m.b.data(), m.size(), &kind), c.want == 0 ? 1u : 0u) << c.what;
		EXPECT_TRUE(c.want != 0 || kind == (c.flags & 0x8000 ? 2u : 1u)) << c.what;
	}

	dns_info info;
	u32 kind;
	EXPECT_EQ(decode_dns(nullptr, 40, &info), -1);
	EXPECT_EQ(is_valid_dns(nullptr, 40, &kind), 0u);
	Msg h = msg(kQuery, 1, 0);  // a 12-byte header with QDCOUNT 1 and nothing after it
	EXPECT_EQ(is_valid_dns(h.b.data(), 11, &kind), 0u);
	EXPECT_EQ(decode(h, &info), -1);
	EXPECT_EQ(decode(h.u8(0), &info), -1);  // the root name
}

TEST(DnsDecoder, QuestionName)
{
	dns_info info;
	Msg q = msg(kQuery, 1, 7).question("WwW.ExAmPlE.TeSt");
	memset(&info, 0, sizeof(info));
	info.count = 0xee;
	ASSERT_EQ(decode_dns(q.b.data(), q.size(), &info), 0);
	EXPECT_STREQ(info.name, "www.example.test");
	EXPECT_EQ(info.count, 0xee) << "a query leaves count alone";

	// The kernel's table: A-Z and the Latin-1 capitals 0xC0-0xDE except
	// 0xD7 gain 0x20; everything else stays. Bytes 2..255 but the dot.
	std::string label, want;
	for (int c = 2; c < 256; c++) {
		bool upper = (c >= 'A' && c <= 'Z') || (c >= 0xc0 && c <= 0xde && c != 0xd7);
		if (c != '.') {
			label += (char)c;
			want += (char)(upper ? c + 0x20 : c);
		}
	}
	Msg l = msg(kQuery, 1, 0).u8(126).raw(label.substr(0, 126)).u8(127).raw(label.substr(126)).u8(0).u16(1).u16(1);
	ASSERT_EQ(decode(l, &info), 0);
	EXPECT_EQ(std::string(info.name), want.substr(0, 126) + "." + want.substr(126));

	Msg ch = msg(kResponse, 1, 1).question("version.bind", 16, 3).rr(16, 3, { 4, 't', 'e', 's', 't' });  // class CH: accepted, nothing taken
	EXPECT_EQ(decode(ch, &info), 0);
	EXPECT_STREQ(info.name, "");
	EXPECT_EQ(info.count, 0);

	std::string n254 = std::string(63, 'a') + "." + std::string(63, 'b') + "." + std::string(63, 'c') + "." + std::string(62, 'd');
	Msg ok = msg(kQuery, 1, 0).question(n254), bad = msg(kQuery, 1, 0).question(n254 + "d");
	ASSERT_EQ(decode(ok, &info), 0);
	EXPECT_EQ(std::string(info.name), n254);
	EXPECT_EQ(decode(bad, &info), -1) << "255 characters";

	// Lengths 64..191 are plain labels.
	Msg big = msg(kQuery, 1, 0).question(std::string(0x50, 'x') + "." + std::string(191 - 0x50 - 1, 'y'));
	ASSERT_EQ(decode(big, &info), 0);
	EXPECT_EQ(strlen(info.name), 191u);
	Msg top = msg(kQuery, 1, 0).question(std::string(191, 'z'));
	EXPECT_EQ(decode(top, &info), 0) << "label length 191";

	Msg nul = msg(kQuery, 1, 0).u8(2).u8(0).u8('a').u8(0).u16(1).u16(1);  // text starting with a NUL byte counts as empty
	EXPECT_EQ(decode(nul, &info), -1);
}

TEST(DnsDecoder, CompressionPointers)
{
	Msg self = msg(kQuery, 1, 0).ptr(12).u16(1).u16(1);
	EXPECT_EQ(name_at(self, 12), "!") << "pointer to itself";

	auto chain = [](int n) {  // n pointers, each to the next, then a name
		Msg m = msg(kQuery, 1, 0);
		for (int i = 0; i < n; i++)
			m.ptr(12 + 2 * (i + 1));
		return m.name("end.test");
	};
	size_t end = 0;
	EXPECT_EQ(name_at(chain(255), 12, &end), "end.test");
	EXPECT_EQ(end, 14u) << "the cursor resumes after the first pointer";
	EXPECT_EQ(name_at(chain(256), 12), "!");

	Msg m = msg(kQuery, 1, 0).question("example.test").u8(3).raw("WWW").ptr(12).u8(0xee);  // labels, then a pointer
	EXPECT_EQ(name_at(m, 30, &end), "www.example.test");
	EXPECT_EQ(end, 36u);

	Msg last = msg(kQuery, 1, 0).question("x.test").ptr(12);  // the byte after a pointer must exist
	EXPECT_EQ(name_at(last, last.size() - 2), "!");
	last.u8(0);
	EXPECT_EQ(name_at(last, last.size() - 3), "x.test");
	Msg far = msg(kQuery, 1, 0).ptr(15).u8(0);  // target at len
	EXPECT_EQ(name_at(far, 12), "!");
	Msg edge = msg(kQuery, 1, 0).u8(3).raw("abc");  // a label must end before the last byte
	EXPECT_EQ(name_at(edge, 12), "!");
	edge.u8(0);
	EXPECT_EQ(name_at(edge, 12), "abc");
}

TEST(DnsDecoder, AnswerSlots)
{
	dns_info info;
	Msg m = msg(kResponse, 1, 4).question("alias.test").rr(5, 1, { 3, 'w', 'w', 'w', 0xc0, 12 });  // CNAME, two A, one AAAA
	m.rr(1, 1, kV4).rr(1, 1, { 10, 53, 1, 11 }).rr(28, 1, kV6);
	ASSERT_EQ(decode(m, &info), 0);
	EXPECT_STREQ(info.name, "alias.test");
	EXPECT_EQ(info.count, 4);
	dns_addr a0 = { 2, {}, { 10, 53, 1, 10 } }, a1 = { 2, {}, { 10, 53, 1, 11 } }, a2 = { 10, {}, {} };
	memcpy(a2.addr, kV6.data(), 16);
	EXPECT_EQ(memcmp(&info.addrs[0], &a0, 20), 0);
	EXPECT_EQ(memcmp(&info.addrs[1], &a1, 20), 0);
	EXPECT_EQ(memcmp(&info.addrs[2], &a2, 20), 0);
	EXPECT_EQ(memcmp(&info.addrs[3], &kEmpty, 20), 0);

	Msg skip = msg(kResponse, 1, 5).question("s.test").rr(1, 1, kV6).rr(28, 1, kV4).rr(1, 3, kV4).rr(28, 255, kV6).rr(28, 1, kV6);  // wrong sizes and other classes use no slot
	ASSERT_EQ(decode(skip, &info), 0);
	EXPECT_EQ(info.count, 5);
	EXPECT_EQ(info.addrs[0].family, 10);
	EXPECT_EQ(info.addrs[1].family, 0);

	Msg many = msg(kResponse, 1, 29).question("many.test");  // 29 answers, 29 slots; the 30th stays empty
	for (int i = 0; i < 29; i++)
		many.rr(1, 1, { 10, 0, 0, (uint8_t)i });
	ASSERT_EQ(decode(many, &info), 0);
	EXPECT_EQ(info.addrs[28].addr[3], 28);
	EXPECT_EQ(memcmp(&info.addrs[29], &kEmpty, 20), 0);

	Msg past = msg(kResponse, 1, 2).question("p.test").rr(1, 1, kV4).ptr(12).u16(1).u16(1).u16(0).u16(1).u16(4).u8(1);  // RDLENGTH past the end: -1, earlier slots stay
	EXPECT_EQ(decode(past, &info), -1);
	EXPECT_EQ(memcmp(&info.addrs[0], &a0, 20), 0);
	Msg half = msg(kResponse, 1, 3).question("h.test").rr(1, 1, kV4).rr(28, 1, kV6);  // ANCOUNT 3, two records
	EXPECT_EQ(decode(half, &info), -1);
	EXPECT_EQ(info.addrs[1].family, 10);

	// The question walk steps over a pointer as two bytes: this question
	// name ends in a pointer into the second answer's RDATA (offset 48).
	Msg qp = msg(kResponse, 1, 2).u8(1).u8('q').ptr(48).u16(1).u16(1).rr(1, 1, kV4).rr(5, 1, { 4, 't', 'e', 's', 't', 0 });
	EXPECT_EQ(decode(qp, &info), 0);
	EXPECT_STREQ(info.name, "q.test");
	EXPECT_EQ(memcmp(&info.addrs[0], &a0, 20), 0);
}

TEST(DnsDecoder, EveryShorterLengthFails)
{
	// With the whole message still in memory behind len, every shorter
	// len fails: the decoder honours len alone.
	Msg resp = msg(kResponse, 1, 3).question("cut.example.test").rr(5, 1, { 1, 'x', 0xc0, 12 }).rr(1, 1, kV4).rr(28, 1, kV6);
	Msg query = msg(kQuery, 1, 0).question("cut.example.test", 28);
	dns_info info;
	for (const Msg *m : { &resp, &query }) {
		ASSERT_EQ(decode(*m, &info), 0);
		for (int len = 0; len < m->size(); len++)
			EXPECT_EQ(decode(*m, &info, len), -1) << "len " << len;
	}
}
