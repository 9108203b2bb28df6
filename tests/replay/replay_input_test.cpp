// What dnshook-replay does with input it cannot take whole: broken and
// truncated captures, unknown link types, packets cut by the snap length,
// missing files, bad options and policies. And where addresses live.
#include <arpa/inet.h>

#include <cstring>
#include <fstream>
#include <random>

#include "replay_support.h"
#include "tools/replay/lan.h"

namespace replay_test {
namespace {

// The story with every record cut to `snap` bytes, as a capture made with
// that snap length would hold it.
sim::Bytes snapped(const sim::Bytes &whole, uint32_t snap)
{
	sim::Bytes out(whole.begin(), whole.begin() + 24);
	put32(out, 16, snap);
	for (size_t pos = 24; pos < whole.size();) {
		uint32_t caplen = get32(whole, pos + 8), keep = std::min(caplen, snap);
		size_t at = out.size();
		out.insert(out.end(), whole.begin() + pos, whole.begin() + pos + 16 + keep);
		put32(out, at + 8, keep);
		pos += 16 + caplen;
	}
	return out;
}

TEST(ReplayInput, BadCapturesOptionsAndPolicies)
{
	sim::Bytes whole = file_bytes(kStory);
	ASSERT_GT(whole.size(), 1000u) << kStory;
	std::string dir = temp_path("");
	auto make = [&](const std::string &name, const sim::Bytes &b) {
		write_bytes(dir + name, b);
		return dir + name;
	};
	sim::Bytes truncated(whole.begin(), whole.begin() + record_at(whole, 10) + 16 + 30);
	sim::Bytes huge = whole;
	put32(huge, record_at(huge, 3) + 8, 0x7fffffff);
	sim::Bytes wifi = whole;
	put32(wifi, 20, 105);
	std::string bad_policy = make("bad.policy", sim::Bytes{'[', 'w', 'p', ']', '\n', 'b', 'l', 'o', 'c', 'k', '\n'});

	struct Case {
		const char *name;
		std::vector<std::string> args;
		int rc;
		std::string err, out; // substrings
	} cases[] = {
		{"missing file", {dir + "nothere.pcap"}, 1, dir + "nothere.pcap: No such file or directory", ""},
		{"not a capture", {make("text.pcap", sim::Bytes(64, 'x'))}, 1, dir + "text.pcap: unknown file format", ""},
		{"unknown link type", {make("wifi.pcap", wifi)}, 1, dir + "wifi.pcap: link type 105 (IEEE802_11) is not supported", ""},
		// What came before the fault is replayed and summed up.
		{"truncated", {"--wp", make("truncated.pcap", truncated)}, 1, dir + "truncated.pcap: packet 10: truncated dump file",
		 "9 read, 9 through the filter"},
		{"corrupt record", {make("huge.pcap", huge)}, 1, dir + "huge.pcap: packet 3: invalid packet capture length", "2 read"},
		{"snap length",
		 {"--wp", "--policy", kPolicy, make("snap.pcap", snapped(whole, 96))},
		 0,
		 "",
		 "cut by the snap length: 96 of 198 bytes, fed as captured"},
		{"snap length inside the IP header",
		 {make("snap30.pcap", snapped(whole, 30))},
		 0,
		 "",
		 "IP header cut before its addresses: fed from the WAN to br0"},
		{"bad --at time", {"--at", "soon", "pcg_proc=1", kStory}, 2, "--at: 'soon' is not a number of seconds", ""},
		{"bad --at file", {"--at", "1", "hosts=1", kStory}, 2, "--at 1: unknown control file 'hosts'", ""},
		{"bad --at command", {"--at", "1", "pcg_proc", kStory}, 2, "--at 1: 'pcg_proc' is not FILE=TEXT", ""},
		{"--at cut short", {kStory, "--at", "1"}, 2, "--at needs FILE=TEXT after the seconds", ""},
		{"bad prefix", {"--lan", "192.168.1.0/33", kStory}, 2, "--lan: '192.168.1.0/33' is not an address prefix", ""},
		{"bad MAC", {"--mac", "00:11:22:33:44", kStory}, 2, "--mac: '00:11:22:33:44' is not a MAC address", ""},
		{"no capture", {"--wp"}, 2, "no capture given", ""},
		{"bad policy", {"--policy", bad_policy, kStory}, 2, bad_policy + ":2:", ""},
		{"unwritable --out", {"--out", "/nonexistent/forged.pcap", kStory}, 1, "/nonexistent/forged.pcap", ""},
	};
	for (const Case &c : cases) {
		SCOPED_TRACE(c.name);
		Outcome r = run(c.args);
		EXPECT_EQ(c.rc, r.rc);
		EXPECT_NE(std::string::npos, r.err.find(c.err)) << r.err;
		EXPECT_NE(std::string::npos, r.out().find(c.out)) << r.out().substr(0, 2000);
	}

	// Cut packets are still fed as the short packets they are: all 95
	// reach the filter; the requests cut inside their Host lines are rated
	// by what is left of the names (so the blocked site passes), the IPv6
	// one cut before its Host line is not rated at all.
	Outcome snap = run({"--wp", "--json", "--policy", kPolicy, dir + "snap.pcap"});
	ASSERT_EQ(0, snap.rc);
	uint64_t longer = 0;
	for (const sim::Bytes &f : story())
		longer += f.size() > 96;
	std::string summary = events(snap, "summary").at(0);
	EXPECT_EQ("95 95 " + std::to_string(longer),
		  field(summary, "read") + " " + field(summary, "fed") + " " + field(summary, "cut"));
	std::vector<std::string> asked = events(snap, "request");
	std::string hosts;
	for (auto &a : asked)
		hosts += field(a, "host") + " ";
	EXPECT_EQ("news.exa games.ex chat.example.test secure.example.test ", hosts);
	EXPECT_EQ("ACCEPT", decisions(snap)[27]);
	EXPECT_EQ("ACCEPT", decisions(snap)[87]);
	for (const char *n : {"text.pcap", "wifi.pcap", "truncated.pcap", "huge.pcap", "snap.pcap", "snap30.pcap", "bad.policy"})
		remove((dir + n).c_str());
}

// Captures mangled at random (bytes of packets and of record headers
// flipped, records cut short) are replayed or refused, never crash: exit
// 0, or 1 with the file and a packet number named.
TEST(ReplayInput, MangledCapturesNeverCrash)
{
	sim::Bytes whole = file_bytes(kStory);
	ASSERT_GT(whole.size(), 1000u);
	std::mt19937 rng(1234);
	std::string path = temp_path("mangled.pcap");
	for (int round = 0; round < 60; round++) {
		sim::Bytes b = whole;
		int flips = 1 + int(rng() % 40);
		for (int i = 0; i < flips; i++)
			b[24 + rng() % (b.size() - 24)] ^= uint8_t(1 + rng() % 255);
		if (round % 3 == 0)
			b.resize(24 + rng() % (b.size() - 24));
		write_bytes(path, b);
		Outcome r = run({"--wp", "--pc", "--json", "--policy", kPolicy, "--at", "0.5", "unblock_proc==|flush_ssl", path});
		ASSERT_TRUE(r.rc == 0 || r.rc == 1) << "round " << round << ": " << r.rc;
		if (r.rc == 1) {
			EXPECT_NE(std::string::npos, r.err.find(path + ": packet ")) << r.err;
		}
		ASSERT_EQ(1u, events(r, "summary").size()) << "round " << round;
	}
	remove(path.c_str());
}

TEST(ReplayInput, SidesFromLanPrefixes)
{
	using replay::Side;
	auto prefixes = [](std::initializer_list<const char *> texts) {
		std::vector<replay::Prefix> v;
		for (const char *t : texts) {
			replay::Prefix p;
			EXPECT_TRUE(replay::parse_prefix(t, &p)) << t;
			v.push_back(p);
		}
		return v;
	};
	replay::LanMap defaults({}, {});
	replay::LanMap guest({}, prefixes({"192.168.50.0/24", "fd00:50::/64"}));
	replay::LanMap given(prefixes({"203.0.113.0/25", "2001:db8::/32"}), {});
	struct Case {
		const replay::LanMap &lan;
		const char *addr;
		Side side;
	} cases[] = {
		{defaults, "10.1.2.3", Side::br0},       {defaults, "172.31.255.1", Side::br0},
		{defaults, "172.32.0.1", Side::wan},     {defaults, "192.168.50.7", Side::br0},
		{defaults, "fd77::10", Side::br0},       {defaults, "fe80::1", Side::wan},
		{defaults, "2001:db8::1", Side::wan},    {defaults, "8.8.8.8", Side::wan},
		{guest, "192.168.50.7", Side::br1},      {guest, "192.168.51.7", Side::br0},
		{guest, "fd00:50::9", Side::br1},        {guest, "fd00:51::9", Side::br0},
		{given, "203.0.113.127", Side::br0},     {given, "203.0.113.128", Side::wan},
		{given, "192.168.1.1", Side::wan},       {given, "2001:db8:ffff::1", Side::br0},
	};
	for (const Case &c : cases) {
		uint8_t a[16];
		bool v6 = strchr(c.addr, ':') != nullptr;
		ASSERT_EQ(1, inet_pton(v6 ? AF_INET6 : AF_INET, c.addr, a));
		EXPECT_STREQ(replay::side_name(c.side), replay::side_name(c.lan.side(v6, a))) << c.addr;
	}
}

} // namespace
} // namespace replay_test
