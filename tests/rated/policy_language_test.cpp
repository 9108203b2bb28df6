// The policy language: what it accepts, and every error it reports with
// its file and line, nothing half-loaded.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <fstream>

#include "tests/rated/policy_support.h"

using namespace rated_test;
using policy::Service;

namespace {

const std::time_t utc_noon_monday = 1795435200; // Monday 2026-11-23 12:00 UTC: no window open

// Which rule decides each question, for texts that exercise the grammar
// and for the shipped examples ("@FILE"), which decide as their comments say.
TEST(PolicyLanguage, GrammarCornersAndExamples)
{
	setenv("TZ", "UTC0", 1);
	tzset();
	struct Case {
		const char *text, *host;
		Service service;
		bool kids, flow;
		const char *rule; // Decision::rule, after "FILE:" for the examples
	};
	const Case cases[] = {
		// Comments, blanks and tabs; a '#' inside a word is no comment.
		{ "# top\n\n[wp]   # the warning page\n\tdefault\tblock  # all\n\n", "a.example", Service::wp, false, false,
		  "t.policy:4: default block" },
		{ "block-page http://b.lan/#x\n[wp]\nblock a.example/#c\n", "a.example", Service::wp, false, false, "no rule: pass" },
		{ "[wp]\r\nblock a.example\r\n", "A.example", Service::wp, false, false, "t.policy:2: block a.example" },
		// A section opened twice adds to itself; the same rule twice is one.
		{ "[wp]\ndefault block\n[pc]\n[wp]\npass a.example\n", "a.example", Service::wp, false, false,
		  "t.policy:5: pass a.example" },
		{ "[wp]\nblock a.example\nblock a.example\n", "a.example", Service::wp, false, false, "t.policy:2: block a.example" },
		{ "[pc]\n  block    a.example  \n", "x.a.example", Service::pc, false, false, "t.policy:2: block a.example" },
		{ "[wp]\ndefault block\n", "a.example", Service::pc, false, false, "no rule: pass" },
		{ "", "a.example", Service::wp, false, false, "no rule: pass" },
		{ "[device 00-1A-22-33-44-55 tv]\ndefault block\n", "a.example", Service::pc, true, false,
		  "t.policy:2: default block" },
		{ "@home.policy", "www.games.example.net", Service::wp, false, false, "block games.example.net" },
		{ "@home.policy", "cdn.games.example.net", Service::wp, false, false, "pass cdn.games.example.net" },
		{ "@home.policy", "homework.example.org", Service::pc, true, false, "white homework.example.org" },
		{ "@home.policy", "www.wikipedia.example", Service::pc, true, false, "default block" },
		{ "@home.policy", "203.0.113.66", Service::pc, false, true, "block 203.0.113.66" },
		{ "@encrypted-dns.policy", "mozilla.cloudflare-dns.com", Service::wp, false, true, "block cloudflare-dns.com" },
		{ "@encrypted-dns.policy", "dns11.quad9.net", Service::pc, true, true, "block dns11.quad9.net" },
		{ "@encrypted-dns.policy", "[2001:4860:4860:0::8888]", Service::pc, true, true, "block 2001:4860:4860::8888" },
		{ "@encrypted-dns.policy", "www.example.org", Service::pc, true, true, "default pass" },
	};
	for (const Case &c : cases) {
		std::vector<policy::Error> errors;
		bool file = c.text[0] == '@';
		auto p = file ? policy::Policy::load_file(std::string(DNSHOOK_SOURCE_DIR) + "/examples/" + (c.text + 1), errors)
			      : load(c.text);
		ASSERT_NE(nullptr, p) << c.text << (errors.empty() ? "" : errors[0].text());
		// The kids' device in the examples; the tv in the grammar's text.
		policy::Mac mac = { 0x00, file ? uint8_t(0x11) : uint8_t(0x1a), 0x22, 0x33, 0x44, 0x55 };
		policy::Query q = ask(c.service, c.host, c.flow ? "/" : "/x", c.kids ? std::optional(mac) : std::nullopt,
				      utc_noon_monday);
		q.flow = c.flow;
		std::string rule = p->decide(q).rule;
		EXPECT_EQ(c.rule, file ? rule.substr(rule.find(": ") + 2) : rule) << c.text << " " << c.host;
	}
}

TEST(PolicyLanguage, EveryErrorWithItsLine)
{
	struct Case {
		const char *what;
		std::string text;
		std::vector<std::string> errors;
	};
	const Case cases[] = {
		{ "unknown keyword", "[wp]\nallow a.example\n",
		  { "t.policy:2: unknown keyword 'allow' (block-page, default, pass, white, block, schedule, or a [section])" } },
		{ "rule before any section", "# x\nblock a.example\ndefault pass\n",
		  { "t.policy:2: 'block' outside a section: put it under [wp], [pc] or [device MAC NAME]",
		    "t.policy:3: 'default' outside a section: put it under [wp], [pc] or [device MAC NAME]" } },
		{ "schedule in the wrong section", "[wp]\nschedule daily 10:00-11:00 block\n",
		  { "t.policy:2: schedules belong to parental control: [pc] or [device MAC NAME], not [wp]" } },
		{ "bad MACs", "[device 00:11:22:33:44 a]\n[device 00:11:22:33:44:5g b]\n[device 00:11-22:33:44:55]\n",
		  { "t.policy:1: bad MAC address '00:11:22:33:44' (six hex pairs such as 00:11:22:33:44:55)",
		    "t.policy:2: bad MAC address '00:11:22:33:44:5g' (six hex pairs such as 00:11:22:33:44:55)",
		    "t.policy:3: bad MAC address '00:11-22:33:44:55' (six hex pairs such as 00:11:22:33:44:55)" } },
		{ "the same device twice", "[device 00:11:22:33:44:55 a]\n\n[device 00:11:22:33:44:55 b]\n",
		  { "t.policy:3: device 00:11:22:33:44:55 already has a section, line 1" } },
		{ "bad times and days",
		  "[pc]\nschedule mon 21:00-7:00 block\nschedule mon 24:00-07:00 block\nschedule mon 07:60-08:00 block\n"
		  "schedule mon 07:00-07:00 block\nschedule mo-fr 07:00-08:00 block\nschedule mon, 07:00-08:00 block\n"
		  "schedule mon 07:00-08:00 allow\n",
		  { "t.policy:2: bad time window '21:00-7:00' (HH:MM-HH:MM, 24-hour clock, 24:00 as an end)",
		    "t.policy:3: bad time window '24:00-07:00' (HH:MM-HH:MM, 24-hour clock, 24:00 as an end)",
		    "t.policy:4: bad time window '07:60-08:00' (HH:MM-HH:MM, 24-hour clock, 24:00 as an end)",
		    "t.policy:5: empty time window '07:00-07:00' (00:00-24:00 is the whole day)",
		    "t.policy:6: bad days 'mo-fr' (sun, mon, ..., sat, ranges such as mon-fri, lists such as sat,sun, or daily)",
		    "t.policy:7: bad days: list ends with a comma", "t.policy:8: bad verdict 'allow' (pass, white or block)" } },
		{ "headers", "[wp\n[pc] x]\n[device]\n[parents]\n",
		  { "t.policy:1: unterminated section header '[wp'", "t.policy:2: unknown section '[pc] x]' ([wp], [pc] or [device MAC NAME])",
		    "t.policy:3: a device section is [device MAC NAME], the name one word",
		    "t.policy:4: unknown section '[parents]' ([wp], [pc] or [device MAC NAME])" } },
		{ "rules under a broken header are still checked", "[device 00:11 kid]\nblock a..example\n",
		  { "t.policy:1: bad MAC address '00:11' (six hex pairs such as 00:11:22:33:44:55)",
		    "t.policy:2: empty label in host name 'a..example'" } },
		{ "words missing or left over", "[wp]\ndefault\nblock\nblock a.example b.example\nblock-page\n",
		  { "t.policy:2: missing words: default pass|white|block", "t.policy:3: missing words: pass|white|block NAME[/PATH]",
		    "t.policy:4: extra words: pass|white|block NAME[/PATH]", "t.policy:5: missing words: block-page ADDRESS" } },
		{ "defaults and contradictions", "[wp]\ndefault pass\ndefault block\nblock a.example\nwhite a.example\n",
		  { "t.policy:3: second default in this section (first on line 2)",
		    "t.policy:5: 'white a.example' contradicts line 4: 'block a.example'" } },
		{ "bad names", "[wp]\nblock *.a.example\nblock a_b.ex%ample\nblock .\nblock =/x\n",
		  { "t.policy:2: no wildcards: a name already matches every name under it",
		    "t.policy:3: bad character '%' in host name 'a_b.ex%ample'", "t.policy:4: empty host name",
		    "t.policy:5: empty host name" } },
		{ "block page fields", "block-page http://b/?h={hots}\nblock-page http://b/?h={host\n",
		  { "t.policy:1: unknown field {hots} in block page address (known: {host} {url} {path} {service} {device} {mac} {client})",
		    "t.policy:2: unterminated field '{host' in block page address" } },
		{ "the last line cut short", "[wp]\nblock a.example", { "t.policy:2: last line has no line end (file cut short?)" } },
		{ "bytes that are no UTF-8", "[wp]\n# caf\xc3\xa9 ok\nblock \xff\xfe.example\nfoo\n",
		  { "t.policy:3: not a text file (bytes that are not UTF-8)" } },
		{ "a truncated UTF-8 sequence at the end", "[wp]\n#\xe2\x82", { "t.policy:2: not a text file (bytes that are not UTF-8)" } },
		{ "a NUL byte: one error for the whole file", std::string("[wp]\nblock a\0b\n\0\n", 16),
		  { "t.policy:2: not a text file (NUL byte)" } },
		{ "control characters: tabs and line-ending CRs are blanks", "[wp]\r\nblock\ta.example\r\n[device 00:11:22:33:44:55 a\x7f]\n",
		  { "t.policy:3: not a text file (control character 0x7f)" } },
		{ "a CR inside a line", "[wp]\nblock a.example\rb\n", { "t.policy:2: not a text file (control character 0x0d)" } },
		{ "labels of 63 and 64 characters", "[wp]\nblock " + std::string(63, 'a') + ".x\nblock " + std::string(64, 'a') + "\n",
		  { "t.policy:3: label longer than 63 characters in '" + std::string(64, 'a') + "'" } },
	};
	for (const Case &c : cases) {
		std::vector<std::string> errors;
		EXPECT_EQ(nullptr, load(c.text, &errors)) << c.what;
		EXPECT_EQ(c.errors, errors) << c.what;
	}
}

TEST(PolicyLanguage, FilesThatCannotBeRead)
{
	const std::string dir = testing::TempDir() + "rated_files";
	mkdir(dir.c_str(), 0700);
	std::ofstream(dir + "/good.policy") << "[wp]\nblock a.example\n";
	for (auto [path, want] : { std::pair{ dir + "/good.policy", dir + "/good.policy:2: block a.example" },
				   { dir + "/missing.policy", dir + "/missing.policy: cannot read: No such file or directory" },
				   { dir, dir + ": cannot read: Is a directory" } }) {
		std::vector<policy::Error> errors;
		auto p = policy::Policy::load_file(path, errors);
		EXPECT_EQ(want, p ? p->decide(ask(Service::wp, "a.example")).rule : errors.at(0).text());
	}
}

} // namespace
