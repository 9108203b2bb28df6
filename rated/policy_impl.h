#pragma once
// What a parsed policy holds; shared by the parser and the decisions.
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "rated/block_page.h"
#include "rated/policy.h"
#include "rated/rule_set.h"
#include "rated/schedule.h"

namespace policy {

struct ScheduledRule {
	Window window;
	Rule rule; // the verdict while the window is open, and its line
};

// [wp], [pc] or one [device ...].
struct Section {
	RuleSet rules;
	std::optional<Rule> fallback; // "default ..."
	std::vector<ScheduledRule> schedules;
	std::optional<BlockPage> block_page;
	int line = 0; // where the section was first opened
};

struct Device {
	std::string name;
	std::string mac_text;
	Section section;
};

struct Policy::Impl {
	std::string name;
	std::optional<BlockPage> block_page; // the file-wide one
	Section wp, pc;
	std::map<Mac, Device> devices;
	size_t rules = 0;
};

// "00:11:22:33:44:55" (or with '-'), any case; nullopt when malformed.
std::optional<Mac> parse_mac(std::string_view text);
std::string mac_text(const Mac &mac);

} // namespace policy
