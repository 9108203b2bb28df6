// decode_dns, is_valid_dns and extract_name on hand-built messages: header
// checks, name reading (case, lengths, pointers), answer slots and bounds.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "decode/dns.h"

namespace {

// Builds a DNS message byte by byte.
struct Msg {
	std::vector<uint8_t> b;

	Msg &u8(unsigned v) { b.push_back((uint8_t)v); return *this; }
	Msg &u16(unsigned v) { return u8(v >> 8).u8(v & 0xff); }
	Msg &u32(unsigned v) { return u16(v >> 16).u16(v & 0xffff); }
	Msg &raw(const std::string &s) { b.insert(b.end(), s.begin(), s.end()); return *this; }
	Msg &header(unsigned flags, unsigned qd, unsigned an) { return u16(0x1234).u16(flags).u16(qd).u16(an).u16(0).u16(0); }
	// Dotted text to labels, ended by the root label.
	Msg &name(const std::string &dotted)
	{
		size_t start = 0;
		while (start < dotted.size()) {
			size_t dot = dotted.find('.', start);
			if (dot == std::string::npos)
				dot = dotted.size();
			u8(dot - start).raw(dotted.substr(start, dot - start));
			start = dot + 1;
		}
		return u8(0);
	}
	Msg &ptr(unsigned off) { return u16(0xc000 | off); }
	Msg &question(const std::string &n, unsigned type = 1, unsigned klass = 1) { return name(n).u16(type).u16(klass); }
	// A record owned by the question name (pointer to offset 12).
	Msg &rr(unsigned type, unsigned klass, const std::vector<uint8_t> &rdata)
	{
		ptr(12).u16(type).u16(klass).u32(300).u16(rdata.size());
		b.insert(b.end(), rdata.begin(), rdata.end());
		return *this;
	}
	int size() const { return (int)b.size(); }
};

const unsigned kQuery = 0x0100, kResponse = 0x8180;
const std::vector<uint8_t> kV4 = { 10, 53, 1, 10 };
const std::vector<uint8_t> kV6 = { 0xfd, 0, 0, 0x53, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x10 };

int decode(const Msg &m, dns_info *info, int len = -1)
{
	memset(info, 0, sizeof(*info));
	return decode_dns(m.b.data(), len < 0 ? m.size() : len, info);
}

// Reads a name at offset off; "" with ok false on failure.
std::string name_at(const Msg &m, size_t off, bool *ok, size_t *end = nullptr)
{
	char out[256] = {};
	const u8 *cursor = m.b.data() + off;
	*ok = extract_name(m.b.data(), m.size(), &cursor, out) == 1;
	if (end)
		*end = cursor - m.b.data();
	return *ok ? std::string(out) : "";
}

std::string label_of(size_t n, char c) { return std::string(n, c); }

} // namespace

TEST(DnsDecoder, HeaderChecks)
{
	dns_info info;
	u32 kind = 0;
	Msg q;
	q.header(kQuery, 1, 0).question("www.example.test");
	EXPECT_EQ(decode(q, &info), 0);
	EXPECT_EQ(is_valid_dns(q.b.data(), q.size(), &kind), 1u);
	EXPECT_EQ(kind, 1u);

	EXPECT_EQ(decode_dns(nullptr, 40, &info), -1);
	EXPECT_EQ(is_valid_dns(nullptr, 40, &kind), 0u);
	EXPECT_EQ(is_valid_dns(q.b.data(), 11, &kind), 0u);

	struct Case { unsigned flags, qd, an; int want; const char *what; } cases[] = {
		{ kQuery | 0x0800, 1, 0, -1, "OPCODE 1" },
		{ kQuery | 0x1000, 1, 0, -1, "OPCODE 2" },
		{ kQuery, 0, 0, -1, "QDCOUNT 0" },
		{ kQuery, 2, 0, -1, "QDCOUNT 2" },
		{ kQuery | 0x0003, 1, 50, 0, "query: ANCOUNT and RCODE not looked at" },
		{ kQuery | 0x07b0, 1, 0, 0, "AA TC RD RA Z not looked at" },
		{ kResponse, 1, 0, -1, "ANCOUNT 0" },
		{ kResponse, 1, 30, -1, "ANCOUNT 30" },
		{ kResponse, 1, 0x101, -1, "ANCOUNT 257 (low byte 1)" },
		{ kResponse | 3, 1, 1, -1, "NXDOMAIN" },
		{ kResponse | 2, 1, 1, -1, "SERVFAIL" },
		{ kResponse | 0x0800, 1, 1, -1, "response OPCODE 1" },
	};
	for (const auto &c : cases) {
		Msg m;
		m.header(c.flags, c.qd, c.an).question("a.test");
		for (unsigned i = 0; i < 30; i++)
			m.rr(1, 1, kV4);
		EXPECT_EQ(decode(m, &info), c.want) << c.what;
		EXPECT_EQ(is_valid_dns(m.b.data(), m.size(), &kind), c.want == 0 ? 1u : 0u) << c.what;
	}

	// 12-byte header and nothing after it; 13 bytes with a root name.
	Msg h;
	h.header(kQuery, 1, 0);
	EXPECT_EQ(decode(h, &info), -1);
	h.u8(0);
	EXPECT_EQ(decode(h, &info), -1);
}

TEST(DnsDecoder, QuestionName)
{
	dns_info info;
	Msg q;
	q.header(kQuery, 1, 7).question("WwW.ExAmPlE.TeSt");
	memset(&info, 0, sizeof(info));
	info.count = 0xee;
	ASSERT_EQ(decode_dns(q.b.data(), q.size(), &info), 0);
	EXPECT_STREQ(info.name, "www.example.test");
	EXPECT_EQ(info.count, 0xee) << "a query leaves count alone";

	// Lower-casing by the kernel's table: A-Z and the Latin-1 capitals
	// 0xC0-0xDE except 0xD7 gain 0x20; everything else stays.
	std::string label, want;
	for (int c = 2; c < 256; c++) {  // 253 bytes: the name stays within 254
		if (c == '.')
			continue;
		label += (char)c;
		bool upper = (c >= 'A' && c <= 'Z') || (c >= 0xc0 && c <= 0xde && c != 0xd7);
		want += (char)(upper ? c + 0x20 : c);
	}
	Msg l;
	l.header(kQuery, 1, 0).u8(label.size() / 2).raw(label.substr(0, label.size() / 2));
	l.u8(label.size() - label.size() / 2).raw(label.substr(label.size() / 2)).u8(0).u16(1).u16(1);
	ASSERT_EQ(decode(l, &info), 0);
	EXPECT_EQ(std::string(info.name), want.substr(0, want.size() / 2) + "." + want.substr(want.size() / 2));

	// Class CH: accepted, nothing taken.
	Msg ch;
	ch.header(kResponse, 1, 1).question("version.bind", 16, 3).rr(16, 3, { 4, 't', 'e', 's', 't' });
	EXPECT_EQ(decode(ch, &info), 0);
	EXPECT_STREQ(info.name, "");
	EXPECT_EQ(info.count, 0);

	// Names of 254 characters pass, 255 fail (four labels: 63+63+63+62).
	std::string n254 = label_of(63, 'a') + "." + label_of(63, 'b') + "." + label_of(63, 'c') + "." + label_of(62, 'd');
	ASSERT_EQ(n254.size(), 254u);
	Msg ok, bad;
	ok.header(kQuery, 1, 0).question(n254);
	bad.header(kQuery, 1, 0).question(n254 + "d");
	ASSERT_EQ(decode(ok, &info), 0);
	EXPECT_EQ(std::string(info.name), n254);
	EXPECT_EQ(decode(bad, &info), -1);

	// Label lengths 64..191 are plain labels.
	Msg big;
	big.header(kQuery, 1, 0).question(label_of(0x50, 'x') + ".test");
	ASSERT_EQ(decode(big, &info), 0);
	EXPECT_EQ(std::string(info.name), label_of(80, 'x') + ".test");
	Msg bigger;
	bigger.header(kQuery, 1, 0).question(label_of(191, 'y'));
	ASSERT_EQ(decode(bigger, &info), 0);
	EXPECT_EQ(strlen(info.name), 191u);

	// A name whose text starts with a NUL byte counts as empty.
	Msg nul;
	nul.header(kQuery, 1, 0).u8(2).u8(0).u8('a').u8(0).u16(1).u16(1);
	EXPECT_EQ(decode(nul, &info), -1);

	// Truncated QTYPE/QCLASS.
	Msg trunc;
	trunc.header(kQuery, 1, 0).name("a.test").u16(1).u8(0);
	EXPECT_EQ(decode(trunc, &info), -1);
}

TEST(DnsDecoder, CompressionPointers)
{
	bool ok;
	size_t end;

	// Self-pointing pointer: 255 hops, the 256th fails.
	Msg self;
	self.header(kQuery, 1, 0).ptr(12).u16(1).u16(1);
	name_at(self, 12, &ok);
	EXPECT_FALSE(ok);

	// A chain of n pointers, each to the one after it, then a real name.
	auto chain = [](int n) {
		Msg m;
		m.header(kQuery, 1, 0);
		for (int i = 0; i < n; i++)
			m.ptr(12 + 2 * (i + 1));
		m.name("end.test").u16(1).u16(1);
		return m;
	};
	Msg c255 = chain(255), c256 = chain(256);
	EXPECT_EQ(name_at(c255, 12, &ok, &end), "end.test");
	EXPECT_TRUE(ok);
	EXPECT_EQ(end, 14u) << "the cursor resumes after the first pointer";
	name_at(c256, 12, &ok);
	EXPECT_FALSE(ok);

	// Prefix labels then a pointer: text joined, cursor after the pointer.
	Msg m;
	m.header(kQuery, 1, 0).question("example.test");  // name at 12..25
	size_t at = m.size();
	m.name("www").b.pop_back();
	m.ptr(12).u8(0xee);
	EXPECT_EQ(name_at(m, at, &ok, &end), "www.example.test");
	EXPECT_EQ(end, at + 6);

	// A pointer in the last two bytes fails; so does a target at or past len.
	Msg last;
	last.header(kQuery, 1, 0).question("x.test").ptr(12);
	name_at(last, last.size() - 2, &ok);
	EXPECT_FALSE(ok);
	Msg far;
	far.header(kQuery, 1, 0).question("x.test");
	far.ptr(far.size() + 3).u8(0);
	name_at(far, far.size() - 3, &ok);
	EXPECT_FALSE(ok);

	// A label must end before the last byte of the message.
	Msg edge;
	edge.header(kQuery, 1, 0).u8(3).raw("abc");
	name_at(edge, 12, &ok);
	EXPECT_FALSE(ok);
	edge.u8(0);
	EXPECT_EQ(name_at(edge, 12, &ok), "abc");
	EXPECT_TRUE(ok);
}

TEST(DnsDecoder, AnswerSlots)
{
	dns_info info;
	// CNAME, two A, one AAAA: four answers, three slots.
	Msg m;
	m.header(kResponse, 1, 4).question("alias.test");
	m.rr(5, 1, { 3, 'w', 'w', 'w', 0xc0, 12 });
	m.rr(1, 1, kV4).rr(1, 1, { 10, 53, 1, 11 }).rr(28, 1, kV6);
	ASSERT_EQ(decode(m, &info), 0);
	EXPECT_STREQ(info.name, "alias.test");
	EXPECT_EQ(info.count, 4);
	EXPECT_EQ(info.addrs[0].family, 2);
	EXPECT_EQ(memcmp(info.addrs[0].addr, kV4.data(), 4), 0);
	EXPECT_EQ(info.addrs[1].family, 2);
	EXPECT_EQ(info.addrs[1].addr[3], 11);
	EXPECT_EQ(info.addrs[2].family, 10);
	EXPECT_EQ(memcmp(info.addrs[2].addr, kV6.data(), 16), 0);
	const dns_addr zero = {};
	EXPECT_EQ(memcmp(&info.addrs[3], &zero, sizeof(zero)), 0);
	for (int i = 0; i < 3; i++) {
		EXPECT_EQ(info.addrs[i].pad[0] | info.addrs[i].pad[1], 0);
		if (info.addrs[i].family == 2) {
			EXPECT_EQ(memcmp(info.addrs[i].addr + 4, zero.addr, 12), 0);
		}
	}

	// Wrong sizes and other classes are skipped without using a slot.
	Msg skip;
	skip.header(kResponse, 1, 5).question("s.test");
	skip.rr(1, 1, kV6).rr(28, 1, kV4).rr(1, 3, kV4).rr(28, 255, kV6).rr(28, 1, kV6);
	ASSERT_EQ(decode(skip, &info), 0);
	EXPECT_EQ(info.count, 5);
	EXPECT_EQ(info.addrs[0].family, 10);
	EXPECT_EQ(info.addrs[1].family, 0);

	// 29 answers fill 29 slots; the 30th stays zero.
	Msg many;
	many.header(kResponse, 1, 29).question("many.test");
	for (int i = 0; i < 29; i++)
		many.rr(1, 1, { 10, 0, 0, (uint8_t)i });
	ASSERT_EQ(decode(many, &info), 0);
	EXPECT_EQ(info.addrs[28].family, 2);
	EXPECT_EQ(info.addrs[28].addr[3], 28);
	EXPECT_EQ(memcmp(&info.addrs[29], &zero, sizeof(zero)), 0);

	// RDLENGTH past the end: -1, the slots before it stay.
	Msg past;
	past.header(kResponse, 1, 2).question("p.test").rr(1, 1, kV4);
	past.ptr(12).u16(1).u16(1).u32(300).u16(4).u8(1).u8(2).u8(3);
	EXPECT_EQ(decode(past, &info), -1);
	EXPECT_EQ(info.addrs[0].family, 2);
	EXPECT_EQ(info.count, 2);

	// Answers failing halfway: ANCOUNT 3, two records present.
	Msg half;
	half.header(kResponse, 1, 3).question("h.test").rr(1, 1, kV4).rr(28, 1, kV6);
	EXPECT_EQ(decode(half, &info), -1);
	EXPECT_EQ(info.addrs[0].family, 2);
	EXPECT_EQ(info.addrs[1].family, 10);

	// The question walk skips a pointer as two bytes without following
	// it: here the question name ends in a pointer to a name that lies in
	// the second answer's RDATA.
	Msg qp;
	qp.header(kResponse, 1, 2).u8(1).u8('q').ptr(48).u16(1).u16(1);  // 12..19
	qp.rr(1, 1, kV4);                                                // 20..35
	qp.rr(5, 1, { 4, 't', 'e', 's', 't', 0 });                       // RDATA at 48
	ASSERT_EQ(qp.size(), 54);
	EXPECT_EQ(decode(qp, &info), 0);
	EXPECT_STREQ(info.name, "q.test");
	EXPECT_EQ(info.addrs[0].family, 2);
	EXPECT_EQ(info.addrs[1].family, 0);
}

TEST(DnsDecoder, EveryShorterLengthFails)
{
	// Each message needs all its bytes. With the full buffer still behind
	// len, every shorter len must fail: the decoder honours len alone.
	Msg resp;
	resp.header(kResponse, 1, 3).question("cut.example.test");
	resp.rr(5, 1, { 1, 'x', 0xc0, 12 }).rr(1, 1, kV4).rr(28, 1, kV6);
	Msg query;
	query.header(kQuery, 1, 0).question("cut.example.test", 28);
	dns_info info;
	for (const Msg *m : { &resp, &query }) {
		ASSERT_EQ(decode(*m, &info), 0);
		for (int len = 0; len < m->size(); len++)
			EXPECT_EQ(decode(*m, &info, len), -1) << "len " << len;
	}
}
