// dnshookd's plain parts: connection tuples read from packets, the
// command line, the clock's start.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "runtime/clock.h"
#include "runtime/ct_tuple.h"
#include "runtime/options.h"

extern unsigned int jiffies; // the model's tick counter

namespace {

using Bytes = std::vector<uint8_t>;

Bytes ip4(uint8_t proto, const char *src, const char *dst, uint16_t sport, uint16_t dport, size_t l4 = 20)
{
	Bytes p(20 + l4, 0);
	p[0] = 0x45;
	p[9] = proto;
	inet_pton(AF_INET, src, &p[12]);
	inet_pton(AF_INET, dst, &p[16]);
	if (l4 >= 4) {
		uint16_t s = htons(sport), d = htons(dport);
		memcpy(&p[20], &s, 2);
		memcpy(&p[22], &d, 2);
	}
	return p;
}

// IPv6 with an optional hop-by-hop header (8 bytes) before the transport.
Bytes ip6(uint8_t proto, const char *src, const char *dst, uint16_t sport, uint16_t dport, bool hop)
{
	Bytes p(40 + (hop ? 8 : 0) + 20, 0);
	p[0] = 0x60;
	p[6] = hop ? 0 : proto;
	inet_pton(AF_INET6, src, &p[8]);
	inet_pton(AF_INET6, dst, &p[24]);
	size_t off = 40;
	if (hop) {
		p[40] = proto; // next header; length 0 = 8 bytes
		off = 48;
	}
	uint16_t s = htons(sport), d = htons(dport);
	memcpy(&p[off], &s, 2);
	memcpy(&p[off + 2], &d, 2);
	return p;
}

TEST(CtTuple, PacketsOfOneConnectionShareAKeyAndOthersDoNot)
{
	struct Case {
		const char *name;
		Bytes a, b;
		bool same;
	};
	const Case cases[] = {
		{"tcp both directions", ip4(6, "10.0.0.2", "1.2.3.4", 40000, 80), ip4(6, "1.2.3.4", "10.0.0.2", 80, 40000), true},
		{"udp both directions", ip4(17, "10.0.0.2", "9.9.9.9", 5353, 53), ip4(17, "9.9.9.9", "10.0.0.2", 53, 5353), true},
		{"icmp: no ports", ip4(1, "10.0.0.2", "1.2.3.4", 0x0800, 7, 8), ip4(1, "1.2.3.4", "10.0.0.2", 0, 7, 8), true},
		{"another client port", ip4(6, "10.0.0.2", "1.2.3.4", 40000, 80), ip4(6, "10.0.0.2", "1.2.3.4", 40001, 80), false},
		{"tcp and udp", ip4(6, "10.0.0.2", "1.2.3.4", 1000, 53), ip4(17, "10.0.0.2", "1.2.3.4", 1000, 53), false},
		{"v6 behind a hop-by-hop header", ip6(6, "fd00::2", "2001:db8::1", 40000, 80, true),
		 ip6(6, "2001:db8::1", "fd00::2", 80, 40000, false), true},
		{"v6 and v4", ip6(6, "fd00::2", "2001:db8::1", 1, 2, false), ip4(6, "10.0.0.2", "1.2.3.4", 1, 2), false},
	};
	for (const Case &c : cases) {
		dnshookd::CtTuple ta, tb;
		ASSERT_TRUE(dnshookd::ct_tuple_of_packet(c.a.data(), c.a.size(), ta)) << c.name;
		ASSERT_TRUE(dnshookd::ct_tuple_of_packet(c.b.data(), c.b.size(), tb)) << c.name;
		EXPECT_EQ(ta.key() == tb.key(), c.same) << c.name;
	}
	dnshookd::CtTuple t;
	Bytes p = ip4(6, "10.0.0.2", "1.2.3.4", 40000, 80);
	ASSERT_TRUE(dnshookd::ct_tuple_of_packet(p.data(), p.size(), t));
	EXPECT_EQ(t.family, AF_INET);
	EXPECT_EQ(t.proto, 6);
	EXPECT_EQ(ntohs(t.sport), 40000);
	EXPECT_EQ(ntohs(t.dport), 80);
}

TEST(CtTuple, CutShortOrForeignHeadersNameNoConnection)
{
	const Bytes tcp = ip4(6, "10.0.0.2", "1.2.3.4", 1, 80);
	const struct {
		const char *name;
		Bytes packet;
	} cases[] = {
		{"empty", {}},
		{"19 bytes of IPv4", Bytes(tcp.begin(), tcp.begin() + 19)},
		{"ports cut off", Bytes(tcp.begin(), tcp.begin() + 22)},
		{"version 5", [] { Bytes b(40, 0); b[0] = 0x55; return b; }()},
		{"39 bytes of IPv6", Bytes(39, 0x60)},
	};
	for (const auto &c : cases) {
		dnshookd::CtTuple t;
		EXPECT_FALSE(dnshookd::ct_tuple_of_packet(c.packet.data(), c.packet.size(), t)) << c.name;
	}
}

TEST(Options, CommandLines)
{
	struct Case {
		std::vector<std::string> args;
		int rc;
		bool exit_now;
		std::string control;
		unsigned hz;
		int level;
		bool bypass, fail_closed;
	};
	const Case cases[] = {
		{{}, 0, false, "/run/dnshook", 100, 6, true, false},
		{{"--control", "/tmp/c", "--hz", "1000", "--log-level", "7"}, 0, false, "/tmp/c", 1000, 7, true, false},
		{{"--no-bypass", "--fail-closed"}, 0, false, "/run/dnshook", 100, 6, false, true},
		{{"--hz", "0"}, 2, true, "/run/dnshook", 100, 6, true, false},
		{{"--hz", "100001"}, 2, true, "/run/dnshook", 100, 6, true, false},
		{{"--log-level", "8"}, 2, true, "/run/dnshook", 100, 6, true, false},
		{{"--hz", "12x"}, 2, true, "/run/dnshook", 100, 6, true, false},
		{{"--control"}, 2, true, "/run/dnshook", 100, 6, true, false},
		{{"stray"}, 2, true, "/run/dnshook", 100, 6, true, false},
		{{"--help"}, 0, true, "/run/dnshook", 100, 6, true, false},
	};
	for (const Case &c : cases) {
		std::vector<std::string> argv_s = {"dnshookd"};
		argv_s.insert(argv_s.end(), c.args.begin(), c.args.end());
		std::vector<char *> argv;
		for (auto &a : argv_s)
			argv.push_back(a.data());
		argv.push_back(nullptr);
		optind = 1;
		dnshookd::Options opt;
		bool exit_now = false;
		testing::internal::CaptureStdout();
		testing::internal::CaptureStderr();
		int rc = dnshookd::parse_options((int)argv_s.size(), argv.data(), opt, exit_now);
		testing::internal::GetCapturedStdout();
		std::string err = testing::internal::GetCapturedStderr();
		std::string what = c.args.empty() ? "(none)" : c.args[0];
		EXPECT_EQ(rc, c.rc) << what;
		EXPECT_EQ(exit_now, c.exit_now) << what;
		EXPECT_EQ(opt.control_dir, c.control) << what;
		EXPECT_EQ(opt.hz, c.hz) << what;
		EXPECT_EQ(opt.log_level, c.level) << what;
		EXPECT_EQ(opt.bypass, c.bypass) << what;
		EXPECT_EQ(opt.fail_closed, c.fail_closed) << what;
		EXPECT_EQ(err.empty(), c.rc == 0) << what << ": " << err;
	}
}

TEST(Clock, StartsThreeHundredSecondsBeforeTheWrap)
{
	for (unsigned hz : {100u, 1000u, 100000u}) {
		dnshookd::Clock clock(hz);
		uint32_t start = (uint32_t)(-300 * (int64_t)hz);
		uint32_t now = clock.tick();
		EXPECT_EQ(now, jiffies) << hz;
		EXPECT_LE(now - start, hz / 10) << hz; // within 0.1 s of the start
	}
}

} // namespace
