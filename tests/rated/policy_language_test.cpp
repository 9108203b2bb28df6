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

// Which rule decides each question, for texts that exercise the grammar.
TEST(PolicyLanguage, GrammarCorners)
{
	struct Case {
		const char *what, *text, *host;
		Service service;
		const char *rule; // Decision::rule
	};
	const Case cases[] = {
		{ "comments, blanks and tabs", "# top\n\n[wp]   # the warning page\n\tdefault\tblock  # all\n\n",
		  "a.example", Service::wp, "t.policy:4: default block" },
		{ "a '#' inside a word is no comment", "block-page http://b.lan/#x\n[wp]\nblock a.example/#c\n",
		  "a.example", Service::wp, "no rule: pass" },
		{ "CRLF line ends", "[wp]\r\nblock a.example\r\n", "A.example", Service::wp,
		  "t.policy:2: block a.example" },
		{ "a section opened twice adds to itself", "[wp]\ndefault block\n[pc]\n[wp]\npass a.example\n",
		  "a.example", Service::wp, "t.policy:5: pass a.example" },
		{ "the same rule twice is one rule", "[wp]\nblock a.example\nblock a.example\n", "a.example",
		  Service::wp, "t.policy:2: block a.example" },
		{ "words are joined by one space", "[pc]\n  block    a.example  \n", "x.a.example", Service::pc,
		  "t.policy:2: block a.example" },
		{ "no section for the service: pass", "[wp]\ndefault block\n", "a.example", Service::pc,
		  "no rule: pass" },
		{ "an empty file", "", "a.example", Service::wp, "no rule: pass" },
		{ "a MAC with dashes and capitals", "[device 00-1A-22-33-44-55 tv]\ndefault block\n", "a.example",
		  Service::pc, "t.policy:2: default block" },
	};
	for (const Case &c : cases) {
		auto p = load(c.text);
		ASSERT_NE(nullptr, p) << c.what;
		policy::Mac tv = { 0x00, 0x1a, 0x22, 0x33, 0x44, 0x55 };
		EXPECT_EQ(c.rule, p->decide(ask(c.service, c.host, "/", tv)).rule) << c.what;
	}
}

TEST(PolicyLanguage, EveryErrorWithItsLine)
{
	struct Case {
		const char *what, *text;
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
	};
	for (const Case &c : cases) {
		std::vector<std::string> errors;
		EXPECT_EQ(nullptr, load(c.text, &errors)) << c.what;
		EXPECT_EQ(c.errors, errors) << c.what;
	}
	// A NUL byte: one error for the whole file.
	std::vector<std::string> errors;
	EXPECT_EQ(nullptr, load(std::string("[wp]\nblock a\0b\n\0\n", 16), &errors));
	EXPECT_EQ(std::vector<std::string>{ "t.policy:2: not a text file (NUL byte)" }, errors);
}

TEST(PolicyLanguage, FilesThatCannotBeRead)
{
	const std::string dir = testing::TempDir() + "rated_files";
	mkdir(dir.c_str(), 0700);
	std::ofstream(dir + "/good.policy") << "[wp]\nblock a.example\n";
	struct Case {
		std::string path, error; // "" for a file that loads
	};
	const Case cases[] = {
		{ dir + "/good.policy", "" },
		{ dir + "/missing.policy", dir + "/missing.policy: cannot read: No such file or directory" },
		{ dir, dir + ": cannot read: Is a directory" },
	};
	for (const Case &c : cases) {
		std::vector<policy::Error> errors;
		auto p = policy::Policy::load_file(c.path, errors);
		EXPECT_EQ(c.error.empty(), p != nullptr) << c.path;
		EXPECT_EQ(c.error, errors.empty() ? "" : errors[0].text()) << c.path;
		if (p) {
			EXPECT_EQ("good.policy:2: block a.example",
				  p->decide(ask(Service::wp, "a.example")).rule.substr(dir.size() + 1));
		}
	}
}

// The shipped examples load, and decide as their comments say.
TEST(PolicyLanguage, ExamplesLoadAndDecide)
{
	setenv("TZ", "UTC0", 1);
	tzset();
	const policy::Mac kids = { 0x00, 0x11, 0x22, 0x33, 0x44, 0x55 };
	struct Case {
		const char *file;
		Service service;
		bool kids, flow;
		const char *host, *rule; // the rule's text after "FILE:LINE: "
	};
	const Case cases[] = {
		{ "home.policy", Service::wp, false, false, "www.games.example.net", "block games.example.net" },
		{ "home.policy", Service::wp, false, false, "cdn.games.example.net", "pass cdn.games.example.net" },
		{ "home.policy", Service::pc, true, false, "homework.example.org", "white homework.example.org" },
		{ "home.policy", Service::pc, true, false, "www.wikipedia.example", "default block" },
		{ "home.policy", Service::pc, false, true, "203.0.113.66", "block 203.0.113.66" },
		{ "encrypted-dns.policy", Service::wp, false, true, "mozilla.cloudflare-dns.com", "block cloudflare-dns.com" },
		{ "encrypted-dns.policy", Service::pc, true, true, "dns11.quad9.net", "block dns11.quad9.net" },
		{ "encrypted-dns.policy", Service::pc, true, true, "[2001:4860:4860:0::8888]", "block 2001:4860:4860::8888" },
		{ "encrypted-dns.policy", Service::pc, true, true, "www.example.org", "default pass" },
	};
	for (const Case &c : cases) {
		std::vector<policy::Error> errors;
		auto p = policy::Policy::load_file(std::string(DNSHOOK_SOURCE_DIR) + "/examples/" + c.file, errors);
		ASSERT_NE(nullptr, p) << c.file << ": " << (errors.empty() ? "" : errors[0].text());
		policy::Query q = ask(c.service, c.host, c.flow ? "/" : "/x", c.kids ? std::optional(kids) : std::nullopt,
				      utc_noon_monday);
		q.flow = c.flow;
		std::string rule = p->decide(q).rule;
		EXPECT_EQ(c.rule, rule.substr(rule.find(": ") + 2)) << c.file << " " << c.host;
	}
}

} // namespace
