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

// An IP packet with the ports at the start of its transport header; for
// IPv6 `hop` puts an 8-byte hop-by-hop header before it.
Bytes packet(uint8_t proto, const char *src, const char *dst, uint16_t sport, uint16_t dport, bool hop = false)
{
	bool v6 = strchr(src, ':');
	size_t off = v6 ? 40 + (hop ? 8 : 0) : 20;
	Bytes p(off + 20, 0);
	p[0] = v6 ? 0x60 : 0x45;
	p[v6 ? (hop ? 40 : 6) : 9] = proto; // hop-by-hop is next header 0
	inet_pton(v6 ? AF_INET6 : AF_INET, src, &p[v6 ? 8 : 12]);
	inet_pton(v6 ? AF_INET6 : AF_INET, dst, &p[v6 ? 24 : 16]);
	uint16_t s = htons(sport), d = htons(dport);
	memcpy(&p[off], &s, 2);
	memcpy(&p[off + 2], &d, 2);
	return p;
}

TEST(CtTuple, PacketsOfOneConnectionShareAKeyAndOthersDoNot)
{
	const Bytes tcp = packet(6, "10.0.0.2", "1.2.3.4", 40000, 80);
	struct Case {
		const char *name;
		Bytes a, b; // b empty: a names no connection
		bool same;
	};
	const Case cases[] = {
		{"tcp both directions", tcp, packet(6, "1.2.3.4", "10.0.0.2", 80, 40000), true},
		{"udp both directions", packet(17, "10.0.0.2", "9.9.9.9", 5353, 53), packet(17, "9.9.9.9", "10.0.0.2", 53, 5353), true},
		{"icmp: no ports", packet(1, "10.0.0.2", "1.2.3.4", 0x0800, 7), packet(1, "1.2.3.4", "10.0.0.2", 0, 7), true},
		{"another client port", tcp, packet(6, "10.0.0.2", "1.2.3.4", 40001, 80), false},
		{"tcp and udp", packet(6, "10.0.0.2", "1.2.3.4", 1000, 53), packet(17, "10.0.0.2", "1.2.3.4", 1000, 53), false},
		{"v6 behind a hop-by-hop header", packet(6, "fd00::2", "2001:db8::1", 40000, 80, true),
		 packet(6, "2001:db8::1", "fd00::2", 80, 40000), true},
		{"v6 and v4", packet(6, "fd00::2", "2001:db8::1", 1, 2), packet(6, "10.0.0.2", "1.2.3.4", 1, 2), false},
		{"empty", {}, {}, false},
		{"19 bytes of IPv4", Bytes(tcp.begin(), tcp.begin() + 19), {}, false},
		{"ports cut off", Bytes(tcp.begin(), tcp.begin() + 23), {}, false},
		{"version 5", [] { Bytes b(40, 0); b[0] = 0x55; return b; }(), {}, false},
		{"39 bytes of IPv6", Bytes(39, 0x60), {}, false},
	};
	for (const Case &c : cases) {
		dnshookd::CtTuple ta, tb;
		ASSERT_EQ(!c.b.empty(), dnshookd::ct_tuple_of_packet(c.a.data(), c.a.size(), ta)) << c.name;
		if (!c.b.empty()) {
			ASSERT_TRUE(dnshookd::ct_tuple_of_packet(c.b.data(), c.b.size(), tb)) << c.name;
			EXPECT_EQ(ta.key() == tb.key(), c.same) << c.name;
		}
	}
	dnshookd::CtTuple t;
	ASSERT_TRUE(dnshookd::ct_tuple_of_packet(tcp.data(), tcp.size(), t));
	EXPECT_EQ("2 6 40000 80", std::to_string(t.family) + " " + std::to_string(t.proto) + " " +
					  std::to_string(ntohs(t.sport)) + " " + std::to_string(ntohs(t.dport)));
}

TEST(Options, CommandLines)
{
	struct Case {
		std::vector<std::string> args;
		int rc;
		const char *want; // exit_now control hz level bypass fail_closed
	};
	const Case cases[] = {
		{{}, 0, "0 /run/dnshook 100 6 1 0"},
		{{"--control", "/tmp/c", "--hz", "1000", "--log-level", "7"}, 0, "0 /tmp/c 1000 7 1 0"},
		{{"--no-bypass", "--fail-closed", "--hz", "100000", "--log-level", "0"}, 0, "0 /run/dnshook 100000 0 0 1"},
		{{"--hz", "0"}, 2, "1 /run/dnshook 100 6 1 0"},
		{{"--hz", "100001"}, 2, "1 /run/dnshook 100 6 1 0"},
		{{"--log-level", "8"}, 2, "1 /run/dnshook 100 6 1 0"},
		{{"--hz", "12x"}, 2, "1 /run/dnshook 100 6 1 0"},
		{{"--control"}, 2, "1 /run/dnshook 100 6 1 0"},
		{{"stray"}, 2, "1 /run/dnshook 100 6 1 0"},
		{{"--help"}, 0, "1 /run/dnshook 100 6 1 0"},
	};
	for (const Case &c : cases) {
		std::vector<std::string> argv_s = {"dnshookd"};
		argv_s.insert(argv_s.end(), c.args.begin(), c.args.end());
		std::vector<char *> argv;
		for (auto &a : argv_s)
			argv.push_back(a.data());
		argv.push_back(nullptr);
		optind = 1;
		dnshookd::Options o;
		bool exit_now = false;
		testing::internal::CaptureStdout();
		testing::internal::CaptureStderr();
		int rc = dnshookd::parse_options((int)argv_s.size(), argv.data(), o, exit_now);
		testing::internal::GetCapturedStdout();
		std::string err = testing::internal::GetCapturedStderr();
		std::string what = c.args.empty() ? "(none)" : c.args[0];
		EXPECT_EQ(c.rc, rc) << what;
		EXPECT_EQ(c.want, std::to_string(exit_now) + " " + o.control_dir + " " + std::to_string(o.hz) + " " +
					  std::to_string(o.log_level) + " " + std::to_string(o.bypass) + " " +
					  std::to_string(o.fail_closed))
			<< what;
		EXPECT_EQ(err.empty(), c.rc == 0) << what << ": " << err;
	}
}

TEST(Clock, StartsThreeHundredSecondsBeforeTheWrap)
{
	for (unsigned hz : {100u, 1000u, 100000u}) {
		dnshookd::Clock clock(hz);
		uint32_t now = clock.tick();
		EXPECT_EQ(now, jiffies) << hz;
		EXPECT_LE(now - (uint32_t)(-300 * (int64_t)hz), hz / 10) << hz; // within 0.1 s of the start
	}
}

} // namespace
