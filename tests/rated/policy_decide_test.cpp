// Decisions: which rule matches a host and URL, the device and default
// chain, time windows in local time, and the block page address.
#include <gtest/gtest.h>

#include <cstdlib>
#include <random>
#include <tuple>

#include "tests/rated/policy_support.h"

using namespace rated_test;
using policy::Service;
using policy::Verdict;

namespace {

const policy::Mac kKids = { 0x00, 0x11, 0x22, 0x33, 0x44, 0x55 }, kTv = { 0x00, 0x11, 0x22, 0x33, 0x44, 0x66 },
		  kOther = { 0x02, 0, 0, 0, 0, 9 };

TEST(PolicyDecide, HostsUrlsAndLiterals)
{
	auto p = load("[wp]\n"
		      "default pass\n"
		      "block example.com\n"           // 3
		      "white school.example.org\n"    // 4
		      "pass cdn.games.example.net\n"  // 5
		      "block games.example.net\n"     // 6
		      "block =exact.example\n"        // 7
		      "block 10.1.2.3\n"              // 8
		      "block 2001:DB8:0::1\n"         // 9
		      "block news.example/sport/\n"   // 10
		      "white news.example/sport/results\n" // 11
		      "pass m.news.example\n"         // 12
		      "block =shop.example/cart\n"    // 13
		      "pass shop.example/cart\n");    // 14
	ASSERT_NE(nullptr, p);
	struct Case {
		const char *host, *url;
		int line; // 0: no rule
	};
	const Case cases[] = {
		{ "www.example.com", "/", 3 },         { "example.com", "/", 3 },
		{ "badexample.com", "/", 0 },          { "example.co", "/", 0 },
		{ "com", "/", 0 },                     { "WWW.Example.COM", "/", 3 },
		{ "example.com:8080", "/", 3 },        { "example.com.", "/", 3 },
		{ "www.example.com.:80", "/", 3 },     { "xexample.com.evil.net", "/", 0 },
		{ "cdn.games.example.net", "/", 5 },   { "a.cdn.games.example.net", "/", 5 },
		{ "games.example.net", "/", 6 },       { "xcdn.games.example.net", "/", 6 },
		{ "school.example.org", "/x", 4 },     { "exact.example", "/", 7 },
		{ "www.exact.example", "/", 0 },       { "10.1.2.3", "/", 8 },
		{ "10.1.2.3:8080", "/", 8 },           { "x.10.1.2.3", "/", 0 },
		{ "10.1.2.30", "/", 0 },               { "[2001:db8::1]:443", "/", 9 },
		{ "2001:0db8::0:1", "/", 9 },          { "2001:db8::2", "/", 0 },
		{ "news.example", "/sport/football", 10 }, { "news.example", "/sport/results/today", 11 },
		{ "news.example", "/sports", 0 },      { "www.news.example", "/sport/x", 10 },
		{ "m.news.example", "/sport/x", 10 },  { "m.news.example", "/", 12 },
		{ "NEWS.example:81", "/Sport/x", 0 },  { "shop.example", "/cart/1", 13 },
		{ "www.shop.example", "/cart", 14 },   { "shop.example", "/", 0 },
		{ "", "", 0 },
	};
	for (const Case &c : cases) {
		policy::Decision d = p->decide(ask(Service::wp, c.host, c.url));
		EXPECT_EQ(c.line ? "t.policy:" + std::to_string(c.line) : std::string("t.policy:2"),
			  d.rule.substr(0, d.rule.find(':', 9)))
			<< c.host << c.url;
	}
}

// The hashed rule set against a linear scan over random rules and names.
TEST(PolicyDecide, MatchesASimpleReferenceModel)
{
	std::mt19937 rng(11);
	auto pick = [&](std::vector<std::string> v) { return v[rng() % v.size()]; };
	auto name = [&] {
		std::string n = pick({ "a", "b", "ab" });
		for (int k = int(rng() % 3); k > 0; k--)
			n = pick({ "a", "b", "ab" }) + "." + n;
		return n;
	};
	struct Ref {
		std::string host, path;
		bool exact;
		int line;
	};
	for (int round = 0; round < 40; round++) {
		std::string text = "[wp]\n";
		std::vector<Ref> refs;
		std::map<std::tuple<std::string, std::string, bool>, int> seen;
		for (int i = 0; i < 25; i++) {
			Ref r{ name(), pick({ "", "", "/", "/x", "/x/y" }), rng() % 3 == 0, 0 };
			if (seen.count({ r.host, r.path, r.exact }))
				continue;
			r.line = int(refs.size()) + 2;
			seen[{ r.host, r.path, r.exact }] = r.line;
			refs.push_back(r);
			text += std::string("block ") + (r.exact ? "=" : "") + r.host + r.path + "\n";
		}
		auto p = load(text);
		ASSERT_NE(nullptr, p);
		for (int q = 0; q < 50; q++) {
			std::string host = name(), path = pick({ "/", "/x", "/x/y/z", "/xy", "" });
			const Ref *best = nullptr;
			auto rank = [](const Ref &r) {
				return std::tuple(!r.path.empty(), r.path.size(), r.host.size(), r.exact);
			};
			for (const Ref &r : refs) {
				bool host_ok = host == r.host ||
					       (!r.exact && host.size() > r.host.size() &&
						host.ends_with("." + r.host));
				if (host_ok && path.starts_with(r.path) && (!best || rank(r) > rank(*best)))
					best = &r;
			}
			std::string want = best ? "t.policy:" + std::to_string(best->line) + ":" : "no rule";
			EXPECT_EQ(want, p->decide(ask(Service::wp, host, path)).rule.substr(0, want.size()))
				<< host << path << "\n" << text;
		}
	}
}

TEST(PolicyDecide, DevicesDefaultsAndServices)
{
	auto p = load("[wp]\n"
		      "default white\n"              // 2
		      "block ads.example\n"          // 3
		      "[pc]\n"
		      "default pass\n"               // 5
		      "block adult.example\n"        // 6
		      "pass news.example\n"          // 7
		      "[device 00:11:22:33:44:55 kids]\n"
		      "default block\n"              // 9
		      "pass school.example.org\n"    // 10
		      "block news.example\n"         // 11
		      "[device 00:11:22:33:44:66 tv]\n"
		      "white =tv.example\n");        // 13
	ASSERT_NE(nullptr, p);
	EXPECT_EQ(9u, p->rule_count());
	EXPECT_EQ(2u, p->device_count());
	struct Case {
		Service service;
		std::optional<policy::Mac> mac;
		const char *host;
		bool flow;
		Verdict verdict;
		const char *rule, *device;
	};
	const Case cases[] = {
		{ Service::pc, kKids, "www.school.example.org", false, Verdict::pass, "t.policy:10: pass school.example.org", "kids" },
		{ Service::pc, kKids, "random.example", false, Verdict::block, "t.policy:9: default block", "kids" },
		{ Service::pc, kKids, "adult.example", false, Verdict::block, "t.policy:6: block adult.example", "kids" },
		{ Service::pc, kKids, "news.example", false, Verdict::block, "t.policy:11: block news.example", "kids" },
		{ Service::pc, kOther, "news.example", false, Verdict::pass, "t.policy:7: pass news.example", "" },
		{ Service::pc, kOther, "random.example", false, Verdict::pass, "t.policy:5: default pass", "" },
		{ Service::pc, std::nullopt, "adult.example", false, Verdict::block, "t.policy:6: block adult.example", "" },
		{ Service::pc, kTv, "tv.example", true, Verdict::white_pass, "t.policy:13: white =tv.example", "tv" },
		{ Service::pc, kTv, "random.example", false, Verdict::pass, "t.policy:5: default pass", "tv" },
		// WP knows no devices; its white is a pass for flows, which the
		// filter would otherwise block.
		{ Service::wp, kKids, "school.example.org", false, Verdict::white_pass, "t.policy:2: default white", "" },
		{ Service::wp, std::nullopt, "school.example.org", true, Verdict::pass,
		  "t.policy:2: default white (as pass: a WP flow knows no white)", "" },
		{ Service::wp, std::nullopt, "ads.example", true, Verdict::block, "t.policy:3: block ads.example", "" },
	};
	for (const Case &c : cases) {
		policy::Query q = ask(c.service, c.host, c.flow ? "" : "/", c.mac);
		q.flow = c.flow;
		policy::Decision d = p->decide(q);
		EXPECT_EQ(std::string(name(c.verdict)) + " " + c.rule + " [" + c.device + "] ",
			  std::string(name(d.verdict)) + " " + d.rule + " [" + d.device + "] " + d.block_page) << c.host;
	}
}

void set_tz(const char *tz)
{
	setenv("TZ", tz, 1);
	tzset();
}

std::time_t utc(int y, int mo, int d, int h, int mi)
{
	std::tm t{};
	t.tm_year = y - 1900, t.tm_mon = mo - 1, t.tm_mday = d, t.tm_hour = h, t.tm_min = mi;
	return timegm(&t);
}

TEST(PolicyDecide, SchedulesInLocalTimeAcrossMidnightAndDst)
{
	auto p = load("[pc]\n"
		      "default pass\n"
		      "schedule sat,sun 08:00-09:00 white\n"   // 3: for every device
		      "[device 00:11:22:33:44:55 kids]\n"
		      "pass school.example.org\n"              // 5: the allow list
		      "schedule sun-thu 21:00-07:00 block\n"   // 6
		      "schedule fri 22:00-24:00 block\n");     // 7
	ASSERT_NE(nullptr, p);
	// Central European time with its own DST rules: no zone files needed.
	const char *berlin = "CET-1CEST,M3.5.0,M10.5.0/3";
	struct Case {
		const char *tz, *when;
		std::time_t t;
		const char *host;
		int line; // 2: the default
	};
	const Case cases[] = {
		{ berlin, "Sun 20:59 CET", utc(2026, 3, 22, 19, 59), "games.example", 2 },
		{ berlin, "Sun 21:00 CET", utc(2026, 3, 22, 20, 0), "games.example", 6 },
		{ berlin, "Sun 23:00 CET, allowed", utc(2026, 3, 22, 22, 0), "www.school.example.org", 5 },
		{ berlin, "Mon 06:59 CET", utc(2026, 3, 23, 5, 59), "games.example", 6 },
		{ berlin, "Mon 07:00 CET", utc(2026, 3, 23, 6, 0), "games.example", 2 },
		{ berlin, "Thu 20:30 CET", utc(2026, 3, 26, 19, 30), "games.example", 2 },
		{ berlin, "Fri 06:30 CET, Thursday's night", utc(2026, 3, 27, 5, 30), "games.example", 6 },
		{ berlin, "Fri 21:30 CET", utc(2026, 3, 27, 20, 30), "games.example", 2 },
		{ berlin, "Fri 23:59 CET", utc(2026, 3, 27, 22, 59), "games.example", 7 },
		{ berlin, "Sat 00:30 CET", utc(2026, 3, 27, 23, 30), "games.example", 2 },
		{ berlin, "Sat 06:30 CET", utc(2026, 3, 28, 5, 30), "games.example", 2 },
		{ berlin, "Sat 08:30 CET, everyone's window", utc(2026, 3, 28, 7, 30), "games.example", 3 },
		{ berlin, "Sat 09:00 CET, its end", utc(2026, 3, 28, 8, 0), "games.example", 2 },
		// Summer time from Sunday 29 March: the same UTC hour is an hour later.
		{ berlin, "Sun 21:30 CEST", utc(2026, 3, 29, 19, 30), "games.example", 6 },
		{ berlin, "Mon 07:30 CEST", utc(2026, 3, 30, 5, 30), "games.example", 2 },
		{ berlin, "Mon 06:30 CEST", utc(2026, 3, 30, 4, 30), "games.example", 6 },
		// And back on Sunday 25 October.
		{ berlin, "Sun 20:30 CET", utc(2026, 10, 25, 19, 30), "games.example", 2 },
		{ berlin, "Sun 21:30 CET", utc(2026, 10, 25, 20, 30), "games.example", 6 },
		{ "UTC0", "Mon 05:30 UTC", utc(2026, 3, 30, 5, 30), "games.example", 6 },
		{ "UTC0", "Mon 07:30 UTC", utc(2026, 3, 30, 7, 30), "games.example", 2 },
	};
	for (const Case &c : cases) {
		set_tz(c.tz);
		policy::Decision d = p->decide(ask(Service::pc, c.host, "/", kKids, c.t));
		EXPECT_EQ("t.policy:" + std::to_string(c.line) + ":", d.rule.substr(0, d.rule.find(':', 9) + 1)) << c.when;
		// Another device has only the windows of every device.
		d = p->decide(ask(Service::pc, c.host, "/", kOther, c.t));
		EXPECT_EQ(c.line == 3 ? "t.policy:3:" : "t.policy:2:", d.rule.substr(0, 11)) << c.when;
	}
	set_tz(berlin);
	EXPECT_EQ("no rule: pass", p->decide(ask(Service::wp, "games.example", "/", kKids, utc(2026, 3, 22, 22, 0))).rule)
		<< "no windows for WP";
	set_tz("UTC0");
}

TEST(PolicyDecide, BlockPageAddresses)
{
	auto p = load("block-page http://blocked.lan/?host={host}&url={url}&s={service}&d={device}&m={mac}&c={client}\n"
		      "[wp]\ndefault block\n"
		      "[pc]\ndefault block\nblock-page https://pc.lan/{path}\n"
		      "[device 00:11:22:33:44:55 kids-tablet]\nblock-page http://kids.lan/?d={device}&h={host}\n"
		      "[device 00:11:22:33:44:66]\n");
	ASSERT_NE(nullptr, p);
	struct Case {
		Service service;
		std::optional<policy::Mac> mac;
		const char *host, *url, *want;
	};
	const Case cases[] = {
		{ Service::wp, std::nullopt, "Games.example.net:8080", "/a b/c?d&e=f#g~",
		  "http://blocked.lan/?host=Games.example.net%3A8080&url=Games.example.net%3A8080%2Fa%20b%2Fc%3Fd%26e%3Df%23g~&s=wp&d=&m=&c=192.168.1.10" },
		{ Service::pc, kOther, "x.example", "/caf\xc3\xa9/", "https://pc.lan/%2Fcaf%C3%A9%2F" },
		{ Service::pc, kKids, "x.example", "/", "http://kids.lan/?d=kids-tablet&h=x.example" },
		{ Service::pc, kTv, "x.example", "/", "https://pc.lan/%2F" },
	};
	for (const Case &c : cases) {
		policy::Query q = ask(c.service, c.host, c.url, c.mac);
		q.client = "192.168.1.10";
		EXPECT_EQ(c.want, p->decide(q).block_page) << c.host;
	}

	// Cut to 511 characters, never inside an escape.
	for (auto [literal, want] : { std::pair{ 508, 511 }, { 509, 509 }, { 510, 510 }, { 511, 511 } }) {
		std::string lit = "http://b/" + std::string(size_t(literal) - 9, 'x');
		auto cut = load("[wp]\ndefault block\nblock-page " + lit + "{path}\n");
		ASSERT_NE(nullptr, cut);
		std::string got = cut->decide(ask(Service::wp, "h", "//////")).block_page;
		EXPECT_EQ(size_t(want), got.size()) << literal;
		EXPECT_EQ(lit, got.substr(0, size_t(literal))) << literal;
		EXPECT_EQ(std::string("%2F").substr(0, size_t(want - literal)), got.substr(size_t(literal))) << literal;
	}
	std::vector<std::string> errors;
	EXPECT_EQ(nullptr, load("block-page http://b/" + std::string(503, 'x') + "\n", &errors));
	EXPECT_EQ(std::vector<std::string>{ "t.policy:1: block page address longer than 511 characters" }, errors);
}

} // namespace
