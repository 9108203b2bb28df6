#pragma once
// The daemon's work on one message: check it, decide, log the decision
// and build the reply. Knows no sockets, so it is tested directly.
#include <array>
#include <cstdint>
#include <ctime>
#include <memory>
#include <optional>
#include <string>

#include "rated/log.h"
#include "rated/policy.h"
#include "rated/wire.h"

namespace rated {

struct Counters {
	uint64_t answered = 0;
	uint64_t bad_header = 0;
	std::array<uint64_t, 3> rejected{}; // by wire::Reject
};

class Responder {
public:
	Responder(std::unique_ptr<policy::Policy> policy, Log &log);

	// The reply to one payload, or nullopt when it cannot be answered (it
	// is counted, and the first of each kind is logged).
	std::optional<wire::Record> answer(const uint8_t *data, size_t len, std::time_t now);
	// A datagram whose netlink header is malformed.
	void bad_header();

	// Loads the file again; on any error keeps the policy it has and logs
	// every error. True when the new policy is in use.
	bool reload(const std::string &path);

	const policy::Policy &policy() const { return *policy_; }
	const Counters &counters() const { return counters_; }

private:
	std::unique_ptr<policy::Policy> policy_;
	Log &log_;
	Counters counters_;
	bool told_bad_header_ = false;
	std::array<bool, 3> told_{};
};

// One decision as the log shows it:
// "PC mac=00:11:22:33:44:55 device=kids-tablet client=192.168.1.10
//  host=games.example.net url=/ BLOCK by home.policy:12: block games.example.net"
std::string decision_line(const policy::Query &q, const policy::Decision &d);

// "PASS", "WHITE_PASS", "BLOCK".
const char *verdict_name(policy::Verdict v);

// Every error of a policy, at most `limit` of them and then a count of the rest.
void log_errors(Log &log, const std::vector<policy::Error> &errors, size_t limit = 200);

} // namespace rated
