// Answering the filter's rating requests from a policy (see rater.h).
#include "tools/replay/rater.h"

#include <arpa/inet.h>

namespace replay {

namespace {

const char *verdict_name(policy::Verdict v)
{
	switch (v) {
	case policy::Verdict::pass:
		return "PASS";
	case policy::Verdict::white_pass:
		return "WHITE_PASS";
	case policy::Verdict::block:
		return "BLOCK";
	}
	return "?";
}

// The address as text; "" when the filter left it zero (a WP non-HTTP
// request fills only the server's first four bytes and no family).
std::string addr_text(const std::array<uint8_t, 16> &a, uint16_t family)
{
	bool zero = true;
	for (uint8_t b : a)
		zero = zero && b == 0;
	if (zero)
		return "";
	char s[INET6_ADDRSTRLEN];
	inet_ntop(family == 10 ? AF_INET6 : AF_INET, a.data(), s, sizeof(s));
	return s;
}

} // namespace

Rating rate(const policy::Policy *policy, const Bytes &payload, uint64_t id, std::time_t when)
{
	Rating r;
	r.request.id = r.decision.id = id;
	wire::Reject why;
	std::optional<wire::Request> req = wire::parse_request(payload.data(), payload.size(), why);
	if (!req) {
		r.request.service = "?";
		r.request.problem = wire::reject_text(why);
		return r;
	}
	r.request.service = req->service == 4 ? "PC" : "WP";
	r.request.family = req->family;
	r.request.src = addr_text(req->src, req->family);
	r.request.dst = addr_text(req->dst, req->family);
	r.request.sport = ntohs(req->src_port);
	r.request.dport = ntohs(req->dst_port);
	r.request.host = req->host;
	r.request.url = req->url;
	if (req->service == 4)
		r.request.mac = mac_text(req->mac);
	if (!policy)
		return r;
	policy::Decision d = policy->decide(wire::to_query(*req, when));
	r.reply = wire::build_reply(*req, d.verdict, d.block_page);
	r.decision.verdict = verdict_name(d.verdict);
	r.decision.rule = d.rule;
	r.decision.device = d.device;
	r.decision.block_page = d.verdict == policy::Verdict::block ? d.block_page : "";
	return r;
}

} // namespace replay
