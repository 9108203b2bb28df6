#pragma once
// dnshookd's iptables and ip6tables rules: two chains of its own in the
// mangle table, jumped to first from PREROUTING and FORWARD, queueing only
// what a registered hook could act on. Installed at start (stale chains of
// a killed instance are replaced), rewritten when the hooks change,
// removed when dnshookd ends.
#include <array>
#include <string>

namespace dnshookd {

class Rules {
public:
	// Queue numbers of PRE4, PRE6, FWD4, FWD6 (see queue.h).
	Rules(std::array<unsigned, 4> queues, bool bypass);
	~Rules();
	Rules(const Rules &) = delete;
	Rules &operator=(const Rules &) = delete;

	// Rewrites the chains to match the filter's registered hooks and
	// switch flags, if they changed. False (with the message logged) when
	// iptables refused the rules.
	bool follow_filter(void);
	// The chains' rules as last written, one family after the other.
	const std::string &text(void) const { return text_; }

	// Removes every chain and jump of dnshookd from both families.
	static void remove_all(void);

private:
	std::string chain_rules(bool v6) const;
	std::array<unsigned, 4> queues_;
	bool bypass_;
	std::string applied_[2];
	std::string text_;
};

} // namespace dnshookd
