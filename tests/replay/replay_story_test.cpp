// The story capture (real dig, curl and socat traffic through a router in
// namespaces, tests/data/replay/capture.sh) replayed with the story policy:
// what the filter decides for every packet, what it asks, what it forges
// (read back by tshark), and that every link type and file format gives
// the same replay.
#include <arpa/inet.h>

#include <cstring>
#include <fstream>

#include "replay_support.h"
#include "support/tshark.h"

namespace replay_test {
namespace {

struct Drops {
	int from, to;
	const char *hook;
};

// Packet number -> decision: the ranges given, every other packet accepted.
std::map<int, std::string> expect_decisions(std::initializer_list<Drops> drops, int packets = 95)
{
	std::map<int, std::string> d;
	for (int n = 1; n <= packets; n++)
		d[n] = "ACCEPT";
	for (const Drops &r : drops)
		for (int n = r.from; n <= r.to; n++)
			d[n] = r.hook;
	return d;
}

TEST(ReplayStory, VerdictsAndRequestsPerService)
{
	const std::string L = " " + kLaptop + " ";
	struct Case {
		const char *service;
		std::map<int, std::string> decisions;
		std::vector<std::string> asked; // service, server, host, URL, MAC; the verdict
	} cases[] = {
		// WP: the blocked site is answered with the block page and closed
		// by the filter (the server's data after the client's ACK passes
		// in FIN_WAIT1, #31; the client's FIN gets the last ACK, #38); the
		// chat flow is held, blocked, then unknown; HTTPS passes; the
		// unresolved flow is dropped.
		{"--wp",
		 expect_decisions({{28, 30, "forward_hook"}, {32, 38, "forward_hook"}, {43, 52, "pct_forward_hook"},
				   {55, 55, "pct_forward_hook"}, {78, 79, "pct_forward_hook"}}),
		 {"WP 203.0.113.80 news.example.test /  PASS", "WP 203.0.113.81 games.example.test /  BLOCK",
		  "WP 203.0.113.22 chat.example.test   BLOCK", "WP 203.0.113.43 secure.example.test   PASS",
		  "WP 2001:db8:77::80 www6.example.test /  PASS"}},
		// PC: the laptop's own rules; flows are rated per client with its
		// MAC, the HTTPS site is blocked for good, the unresolved flow
		// passes (no record, no time block).
		{"--pc",
		 expect_decisions({{28, 30, "forward_hook"}, {32, 38, "forward_hook"}, {43, 43, "https_forward_hook"},
				   {55, 77, "https_forward_hook"}}),
		 {"PC 203.0.113.80 news.example.test /" + L + "PASS", "PC 203.0.113.81 games.example.test /" + L + "BLOCK",
		  "PC 203.0.113.22 chat.example.test /" + L + "PASS", "PC 203.0.113.43 secure.example.test /" + L + "BLOCK",
		  "PC 2001:db8:77::80 www6.example.test /" + L + "PASS"}},
	};
	for (const Case &c : cases) {
		SCOPED_TRACE(c.service);
		Outcome r = run({c.service, "--json", "--policy", kPolicy, kStory});
		ASSERT_EQ(0, r.rc) << r.err;
		EXPECT_EQ(c.decisions, decisions(r));
		std::vector<std::string> asked = events(r, "request", {"service", "dst", "host", "url", "mac"}),
					 verdicts = events(r, "reply", {"verdict"});
		ASSERT_EQ(asked.size(), verdicts.size());
		for (size_t i = 0; i < asked.size(); i++)
			asked[i] += " " + verdicts[i];
		EXPECT_EQ(c.asked, asked);
		std::vector<std::string> sent = events(r, "sent", {"kind", "location"});
		EXPECT_EQ(1, std::count(sent.begin(), sent.end(),
					"redirect http://blocked.lan/?host=games.example.test&url=games.example.test%2F&service=" +
						std::string(c.service[2] == 'w' ? "wp&device=" : "pc&device=laptop")));
	}
}

// ---- the forged packets, as tshark reads them ----

uint32_t be32(const sim::Bytes &b, size_t off) { return uint32_t(b[off]) << 24 | b[off + 1] << 16 | b[off + 2] << 8 | b[off + 3]; }

// A captured IPv4 TCP frame: its sequence and acknowledgement numbers and payload length.
struct Seg {
	uint32_t seq, ack, len;
};
Seg seg(int n)
{
	const sim::Bytes &f = story().at(n - 1);
	size_t ip = 14, tcp = ip + (f[ip] & 0xf) * 4, data = tcp + (f[tcp + 12] >> 4) * 4;
	size_t total = size_t(f[ip + 2]) << 8 | f[ip + 3];
	return {be32(f, tcp + 4), be32(f, tcp + 8), uint32_t(ip + total - data)};
}

TEST(ReplayStory, ForgedPacketsReadBackByTshark)
{
	if (!have_tshark())
		GTEST_SKIP() << "tshark is not installed";
	ASSERT_FALSE(story().empty()) << kStory;
	std::string out = temp_path("forged.pcap");
	Outcome r = run({"--wp", "--quiet", "--policy", kPolicy, "--out", out, kStory});
	ASSERT_EQ(0, r.rc) << r.err;

	// Expected from the captured segments the filter answered: the request
	// of the blocked site (#27), the client's ACK that gets the FIN+ACK
	// (#30), the client's FIN+ACK that gets the last ACK (#38); the held
	// copies of the allowed requests (#8, #87) go out as they came.
	Seg req = seg(27), ack = seg(30), fin = seg(38);
	auto row = [](const char *src, const char *dst, const char *flags, uint32_t s, uint32_t a, const std::string &loc) {
		return std::vector<std::string>{src, dst, flags, std::to_string(s), std::to_string(a), "1", "1", loc};
	};
	const char *srv = "203.0.113.81", *cli = "192.168.77.10";
	Seg news = seg(8);
	TsharkRows want = {
		row(cli, "203.0.113.80", "0x0018", news.seq, news.ack, ""),
		row(srv, cli, "0x0010", req.ack, req.seq + req.len, ""),
		row(srv, cli, "0x0018", req.ack, req.seq + req.len,
		    "http://blocked.lan/?host=games.example.test&url=games.example.test%2F&service=wp&device="),
		row(srv, cli, "0x0011", ack.ack, ack.seq, ""),
		row(srv, cli, "0x0010", fin.ack, fin.seq + 1, ""),
	};
	TsharkRows rows;
	ASSERT_TRUE(tshark_fields(out, kTsharkCheckChecksums, "ip",
				  {"ip.src", "ip.dst", "tcp.flags", "tcp.seq_raw", "tcp.ack_raw", "ip.checksum.status",
				   "tcp.checksum.status", "http.location"},
				  &rows));
	EXPECT_EQ(want, rows);

	// The held copies are the very bytes the clients sent.
	std::vector<sim::Bytes> forged;
	sim::PcapLink link;
	ASSERT_TRUE(sim::pcap_read(out, &forged, &link));
	ASSERT_EQ(6u, forged.size());
	auto ip_of = [](const sim::Bytes &f) { return sim::Bytes(f.begin() + 14, f.end()); };
	EXPECT_EQ(ip_of(story().at(8 - 1)), ip_of(forged[0]));
	EXPECT_EQ(ip_of(story().at(87 - 1)), ip_of(forged[5]));
	remove(out.c_str());
}

// ---- the same traffic in other link types and file formats ----

void put16be(sim::Bytes &b, uint16_t v) { b.insert(b.end(), {uint8_t(v >> 8), uint8_t(v)}); }

// The story's frames under a Linux cooked header (v1 or v2) carrying the
// sender's MAC, or as bare IP packets.
bool write_as(const std::string &path, uint32_t link)
{
	std::ofstream f(path, std::ios::binary);
	uint32_t hdr[6] = {0xa1b2c3d4, 0x00040002, 0, 0, 65535, link};
	f.write((const char *)hdr, sizeof(hdr));
	uint32_t sec = 1700000000, usec = 0;
	for (const sim::Bytes &frame : story()) {
		sim::Bytes mac(frame.begin() + 6, frame.begin() + 12), ip(frame.begin() + 14, frame.end()), rec;
		if (link == 1)
			rec.assign(frame.begin(), frame.begin() + 14);
		uint16_t type = uint16_t(frame[12] << 8 | frame[13]);
		if (link == 113) { // packet type, ARPHRD_ETHER, address length, address (8), protocol
			put16be(rec, 0), put16be(rec, 1), put16be(rec, 6);
			rec.insert(rec.end(), mac.begin(), mac.end()), put16be(rec, 0), put16be(rec, type);
		} else if (link == 276) { // protocol, reserved, ifindex, ARPHRD_ETHER, packet type, address length, address
			put16be(rec, type), put16be(rec, 0), rec.insert(rec.end(), {0, 0, 0, 2}), put16be(rec, 1);
			rec.insert(rec.end(), {0, 6}), rec.insert(rec.end(), mac.begin(), mac.end()), put16be(rec, 0);
		}
		rec.insert(rec.end(), ip.begin(), ip.end());
		usec += 1000; // 1 ms apart: the clock is not what this compares
		uint32_t r[4] = {sec, usec, uint32_t(rec.size()), uint32_t(rec.size())};
		f.write((const char *)r, sizeof(r));
		f.write((const char *)rec.data(), rec.size());
	}
	return bool(f);
}

// Lines that must not depend on the link type: every event but the
// header and the summary, without the frame lengths.
std::vector<std::string> story_lines(const Outcome &r)
{
	std::vector<std::string> out;
	for (std::string l : r.lines) {
		if (field(l, "event") == "capture" || field(l, "event") == "summary")
			continue;
		size_t at = l.find(",\"len\":"), end = l.find(",\"caplen\":");
		if (at != std::string::npos && end != std::string::npos)
			l.erase(at, l.find(',', end + 1) - at);
		out.push_back(l);
	}
	return out;
}

TEST(ReplayStory, EveryLinkTypeAndFormatReplaysAlike)
{
	ASSERT_FALSE(story().empty()) << kStory;
	std::string eth = temp_path("eth.pcap");
	ASSERT_TRUE(write_as(eth, 1));
	Outcome base = run({"--pc", "--json", "--policy", kPolicy, eth});
	ASSERT_EQ(0, base.rc) << base.err;
	ASSERT_EQ(5u, events(base, "request").size());

	struct Case {
		const char *name;
		uint32_t link;
		std::vector<std::string> extra;
		const char *link_name;
	} cases[] = {
		{"cooked", 113, {}, "LINUX_SLL"},
		{"cooked v2", 276, {}, "LINUX_SLL2"},
		{"raw IP", 101, {"--mac", kLaptop}, "RAW"},
		{"pcapng", 0, {}, "EN10MB"},
	};
	for (const Case &c : cases) {
		SCOPED_TRACE(c.name);
		std::string path = temp_path(std::string("link") + std::to_string(c.link) + ".cap");
		if (c.link == 0) {
			if (system(("editcap -F pcapng " + eth + " " + path + " 2>/dev/null").c_str()) != 0) {
				ADD_FAILURE() << "editcap (from tshark's package) could not make a pcapng file";
				continue;
			}
		} else {
			ASSERT_TRUE(write_as(path, c.link));
		}
		std::vector<std::string> args = {"--pc", "--json", "--policy", kPolicy};
		args.insert(args.end(), c.extra.begin(), c.extra.end());
		args.push_back(path);
		Outcome r = run(args);
		ASSERT_EQ(0, r.rc) << r.err;
		EXPECT_EQ(c.link_name, field(r.lines.at(0), "link"));
		std::vector<std::string> want = story_lines(base), got = story_lines(r);
		EXPECT_EQ(want.size(), got.size());
		for (size_t i = 0; i < std::min(want.size(), got.size()); i++)
			if (want[i] != got[i]) {
				ADD_FAILURE() << "first difference, line " << i << ":\n  " << want[i] << "\n  " << got[i];
				break;
			}
		remove(path.c_str());
	}
	remove(eth.c_str());
}

// ---- the daemon's delay and control writes, in capture time ----

TEST(ReplayStory, DelayedRepliesAndControlWritesAtCaptureTimes)
{
	// Replies 0.2 s after the request: the blocked site's connection stays
	// held (every packet dropped while rating) until its reply at 0.929353.
	Outcome late = run({"--wp", "--json", "--delay", "0.2", "--policy", kPolicy, kStory});
	ASSERT_EQ(0, late.rc) << late.err;
	std::vector<std::string> times = events(late, "reply", {"time"});
	ASSERT_EQ(5u, times.size());
	EXPECT_EQ("0.537289 0.929353", times[0] + " " + times[1]);
	std::map<int, std::string> d = decisions(late);
	for (int n = 28; n <= 38; n++)
		EXPECT_EQ("forward_hook", d[n]) << "packet " << n;

	// WP switched off half a second in: only the first site is rated, and
	// from then on nothing is held or dropped.
	Outcome off = run({"--wp", "--json", "--at", "0.5", "wl_warning_page=0", "--policy", kPolicy, kStory});
	ASSERT_EQ(0, off.rc) << off.err;
	EXPECT_EQ("0.500000 wl_warning_page 0 1", events(off, "control", {"time", "file", "text", "result"}).at(1));
	EXPECT_EQ(1u, events(off, "request").size());
	std::map<int, std::string> after = decisions(off);
	for (int n = 22; n <= 95; n++)
		EXPECT_EQ("ACCEPT", after[n]) << "packet " << n;
}

// The clock: a device exemption lasts 900000 ticks. With 1000 s of
// silence in the middle of the capture it outlives the gap at 100 ticks a
// second, and has run out at 1000 (the counter wrapping on the way), so the
// sites after the gap are rated again.
TEST(ReplayStory, TicksFollowCaptureTimeAtTheGivenRate)
{
	sim::Bytes shifted = file_bytes(kStory);
	ASSERT_GT(shifted.size(), 1000u);
	for (size_t pos = record_at(shifted, 53); pos < shifted.size(); pos += 16 + get32(shifted, pos + 8))
		put32(shifted, pos, get32(shifted, pos) + 1000);
	std::string path = temp_path("gap.pcap");
	write_bytes(path, shifted);
	struct Case {
		const char *hz;
		std::string asked, secure; // hosts rated; what became of the HTTPS SYN (#55)
	} cases[] = {
		{"1000", "secure.example.test www6.example.test ", "https_forward_hook"},
		{"100", "", "ACCEPT"},
	};
	for (const Case &c : cases) {
		SCOPED_TRACE(c.hz);
		Outcome r = run({"--pc", "--json", "--hz", c.hz, "--at", "0", "unblock_proc=+|" + kLaptop, "--policy", kPolicy, path});
		ASSERT_EQ(0, r.rc) << r.err;
		std::string asked;
		for (auto &h : events(r, "request", {"host"}))
			asked += h + " ";
		EXPECT_EQ(c.asked, asked);
		EXPECT_EQ(c.secure, decisions(r)[55]);
	}
	remove(path.c_str());
}

} // namespace
} // namespace replay_test
