// What dnshook-replay does with input it cannot take whole: broken and
// truncated captures, unknown link types, packets cut by the snap length,
// missing files, bad options and policies. And where addresses live.
#include <arpa/inet.h>

#include <cstring>
#include <random>
#include <sstream>

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
	for (size_t pos = 24; pos < whole.size(); pos += 16 + get32(whole, pos + 8)) {
		uint32_t keep = std::min(get32(whole, pos + 8), snap);
		out.insert(out.end(), whole.begin() + pos, whole.begin() + pos + 16 + keep);
		put32(out, out.size() - keep - 8, keep);
	}
	return out;
}

TEST(ReplayInput, BadCapturesOptionsAndPolicies)
{
	sim::Bytes whole = file_bytes(kStory);
	ASSERT_GT(whole.size(), 1000u) << kStory;
	std::string dir = temp_path("");
	std::vector<std::string> made;
	auto make = [&](const std::string &name, const sim::Bytes &b) {
		write_bytes(dir + name, b);
		made.push_back(dir + name);
		return dir + name;
	};
	sim::Bytes huge = whole, wifi = whole;
	put32(huge, record_at(huge, 3) + 8, 0x7fffffff);
	put32(wifi, 20, 105);
	std::string bad_policy = make("bad.policy", sim::Bytes{'[', 'w', 'p', ']', '\n', 'b', 'l', 'o', 'c', 'k', '\n'});
	struct Case {
		std::vector<std::string> args;
		int rc;
		std::string err, out; // substrings
	} cases[] = {
		{{dir + "nothere.pcap"}, 1, dir + "nothere.pcap: No such file or directory", ""},
		{{make("text.pcap", sim::Bytes(64, 'x'))}, 1, dir + "text.pcap: unknown file format", ""},
		{{make("wifi.pcap", wifi)}, 1, dir + "wifi.pcap: link type 105 (IEEE802_11) is not supported", ""},
		// What came before the fault is replayed and summed up.
		{{"--wp", make("truncated.pcap", sim::Bytes(whole.begin(), whole.begin() + record_at(whole, 10) + 46))}, 1,
		 dir + "truncated.pcap: packet 10: truncated dump file", "9 read, 9 through the filter"},
		{{make("huge.pcap", huge)}, 1, dir + "huge.pcap: packet 3: invalid packet capture length", "2 read"},
		{{"--wp", "--policy", kPolicy, make("snap.pcap", snapped(whole, 96))}, 0, "",
		 "cut by the snap length: 96 of 198 bytes, fed as captured"},
		{{make("snap30.pcap", snapped(whole, 30))}, 0, "", "IP header cut before its addresses: fed from the WAN to br0"},
		{{"--at", "soon", "pcg_proc=1", kStory}, 2, "--at: 'soon' is not a number of seconds", ""},
		{{"--at", "1", "hosts=1", kStory}, 2, "--at 1: unknown control file 'hosts'", ""},
		{{"--at", "1", "pcg_proc", kStory}, 2, "--at 1: 'pcg_proc' is not FILE=TEXT", ""},
		{{kStory, "--at", "1"}, 2, "--at needs FILE=TEXT after the seconds", ""},
		{{"--lan", "192.168.1.0/33", kStory}, 2, "--lan: '192.168.1.0/33' is not an address prefix", ""},
		{{"--mac", "00:11:22:33:44", kStory}, 2, "--mac: '00:11:22:33:44' is not a MAC address", ""},
		{{"--wp"}, 2, "no capture given", ""},
		{{"--policy", bad_policy, kStory}, 2, bad_policy + ":2:", ""},
		{{"--out", "/nonexistent/forged.pcap", kStory}, 1, "/nonexistent/forged.pcap", ""},
	};
	for (const Case &c : cases) {
		SCOPED_TRACE(c.args.back());
		Outcome r = run(c.args);
		EXPECT_EQ(c.rc, r.rc);
		EXPECT_NE(std::string::npos, r.err.find(c.err)) << r.err;
		EXPECT_NE(std::string::npos, r.out.find(c.out)) << r.out.substr(0, 2000);
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
	EXPECT_EQ(std::vector<std::string>{ "95 95 " + std::to_string(longer) }, events(snap, "summary", {"read", "fed", "cut"}));
	EXPECT_EQ((std::vector<std::string>{"news.exa", "games.ex", "chat.example.test", "secure.example.test"}),
		  events(snap, "request", {"host"}));
	EXPECT_EQ("ACCEPT ACCEPT", decisions(snap)[27] + " " + decisions(snap)[87]);
	for (const std::string &f : made)
		remove(f.c_str());
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
		for (int i = 0, flips = 1 + int(rng() % 40); i < flips; i++)
			b[24 + rng() % (b.size() - 24)] ^= uint8_t(1 + rng() % 255);
		if (round % 3 == 0)
			b.resize(24 + rng() % (b.size() - 24));
		write_bytes(path, b);
		Outcome r = run({"--wp", "--pc", "--json", "--policy", kPolicy, "--at", "0.5", "unblock_proc==|flush_ssl", path});
		ASSERT_TRUE(r.rc == 0 || (r.rc == 1 && r.err.find(path + ": packet ") != std::string::npos))
			<< "round " << round << ": " << r.rc << " " << r.err;
		ASSERT_EQ(1u, events(r, "summary").size()) << "round " << round;
	}
	remove(path.c_str());
}

TEST(ReplayInput, SidesFromLanPrefixes)
{
	auto lan = [](std::initializer_list<const char *> texts) {
		std::vector<replay::Prefix> v;
		for (const char *t : texts) {
			v.emplace_back();
			EXPECT_TRUE(replay::parse_prefix(t, &v.back())) << t;
		}
		return v;
	};
	replay::LanMap defaults({}, {}), guest({}, lan({"192.168.50.0/24", "fd00:50::/64"})),
		given(lan({"203.0.113.0/25", "2001:db8::/32"}), {});
	struct Case {
		const replay::LanMap &lan;
		const char *side, *addrs;
	} cases[] = {
		{defaults, "br0", "10.1.2.3 172.31.255.1 192.168.50.7 fd77::10"},
		{defaults, "eth0", "172.32.0.1 fe80::1 2001:db8::1 8.8.8.8"},
		{guest, "br1", "192.168.50.7 fd00:50::9"},
		{guest, "br0", "192.168.51.7 fd00:51::9"},
		{given, "br0", "203.0.113.127 2001:db8:ffff::1"},
		{given, "eth0", "203.0.113.128 192.168.1.1"},
	};
	for (const Case &c : cases) {
		std::istringstream words(c.addrs);
		for (std::string a; words >> a;) {
			uint8_t bytes[16];
			bool v6 = a.find(':') != std::string::npos;
			ASSERT_EQ(1, inet_pton(v6 ? AF_INET6 : AF_INET, a.c_str(), bytes)) << a;
			EXPECT_STREQ(c.side, replay::side_name(c.lan.side(v6, bytes))) << a;
		}
	}
}

} // namespace
} // namespace replay_test
