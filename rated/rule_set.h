#pragma once
// The host and URL rules of one policy section, looked up in a time that
// does not depend on how many rules there are: one hash probe per label
// of the asked name.
#include <deque>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "rated/policy.h"

namespace policy {

struct Rule {
	Verdict verdict = Verdict::pass;
	int line = 0;
	std::string text; // as written, e.g. "block games.example.net"
};

struct Pattern {
	std::string host;  // canonical
	bool exact = false; // "=name": the name only, not the names under it
	std::string path;  // "" for a host rule, else a prefix starting with '/'
};

class RuleSet {
public:
	// Adds a rule; returns the rule already there for the same pattern, if
	// any (the new one is then not added).
	const Rule *add(const Pattern &p, Rule rule);

	// The rule for `host` (canonical) and `path`: the URL rule with the
	// longest matching path prefix, else the host rule of the longest
	// matching name (an exact rule before a suffix rule for the same name).
	// Names under an IP literal do not exist: literals match only exactly.
	const Rule *match(const std::string &host, std::string_view path) const;

	size_t size() const { return rules_.size(); }

private:
	struct PathRule {
		std::string prefix;
		bool exact;
		const Rule *rule;
	};
	struct Entry {
		const Rule *exact = nullptr;
		const Rule *suffix = nullptr;
		std::vector<PathRule> paths; // longest prefix first
	};
	std::unordered_map<std::string, Entry> by_host_;
	std::deque<Rule> rules_; // stable addresses
};

} // namespace policy
