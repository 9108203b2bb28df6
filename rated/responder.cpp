#include "rated/responder.h"

#include <cstdio>

#include "common/escape.h"

namespace rated {

namespace {

std::string or_dash(const std::string &s) { return s.empty() ? "-" : s; }

// A name or path from a request as one word of the log line: the filter
// copies them from packets, which may carry any byte (a DNS label can hold
// a space or a newline).
std::string word(const std::string &s) { return s.empty() ? "-" : dnshook::escape_bytes(s, false); }

std::string mac_string(const policy::Mac &m)
{
	char s[18];
	snprintf(s, sizeof(s), "%02x:%02x:%02x:%02x:%02x:%02x", m[0], m[1], m[2], m[3], m[4], m[5]);
	return s;
}

} // namespace

const char *verdict_name(policy::Verdict v)
{
	switch (v) {
	case policy::Verdict::pass: return "PASS";
	case policy::Verdict::white_pass: return "WHITE_PASS";
	case policy::Verdict::block: return "BLOCK";
	}
	return "?";
}

std::string decision_line(const policy::Query &q, const policy::Decision &d)
{
	std::string s = q.service == policy::Service::wp ? "WP" : "PC";
	s += " mac=" + (q.mac ? mac_string(*q.mac) : "-");
	s += " device=" + or_dash(d.device);
	s += " client=" + or_dash(q.client);
	s += " host=" + word(q.host);
	s += " url=" + word(q.url);
	s += std::string(" ") + verdict_name(d.verdict) + " by " + d.rule;
	return s;
}

void log_errors(Log &log, const std::vector<policy::Error> &errors, size_t limit)
{
	for (size_t i = 0; i < errors.size() && i < limit; i++)
		log.error(errors[i].text());
	if (errors.size() > limit)
		log.error("... and " + std::to_string(errors.size() - limit) + " more errors");
}

Responder::Responder(std::unique_ptr<policy::Policy> policy, Log &log) : policy_(std::move(policy)), log_(log) {}

std::optional<wire::Record> Responder::answer(const uint8_t *data, size_t len, std::time_t now)
{
	wire::Reject why{};
	std::optional<wire::Request> req = wire::parse_request(data, len, why);
	if (!req) {
		size_t k = size_t(why);
		counters_.rejected[k]++;
		if (!told_[k]) {
			told_[k] = true;
			log_.warning(std::string("ignoring messages ") + wire::reject_text(why) + " (first one " +
				     std::to_string(len) + " bytes); further ones are only counted");
		}
		return std::nullopt;
	}
	policy::Query q = wire::to_query(*req, now);
	policy::Decision d = policy_->decide(q);
	if (log_.enabled(Level::info))
		log_.info(decision_line(q, d));
	counters_.answered++;
	return wire::build_reply(*req, d.verdict, d.block_page);
}

void Responder::bad_header()
{
	counters_.bad_header++;
	if (!told_bad_header_) {
		told_bad_header_ = true;
		log_.warning("ignoring datagrams with a malformed netlink header; further ones are only counted");
	}
}

bool Responder::reload(const std::string &path)
{
	std::vector<policy::Error> errors;
	std::unique_ptr<policy::Policy> fresh = policy::Policy::load_file(path, errors);
	if (!fresh) {
		log_errors(log_, errors);
		log_.error("reload of " + path + " failed: " + std::to_string(errors.size()) +
			   " errors; keeping the policy in use (" + std::to_string(policy_->rule_count()) + " rules)");
		return false;
	}
	policy_ = std::move(fresh);
	log_.warning("reloaded " + path + " (" + std::to_string(policy_->rule_count()) + " rules)");
	return true;
}

} // namespace rated
