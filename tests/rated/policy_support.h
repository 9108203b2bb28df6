#pragma once
// Parsing a policy text in a test, and questions to it.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "rated/policy.h"

namespace rated_test {

inline std::unique_ptr<policy::Policy> load(const std::string &text, std::vector<std::string> *errors = nullptr)
{
	std::vector<policy::Error> errs;
	auto p = policy::Policy::parse(text, "t.policy", errs);
	if (errors)
		for (const auto &e : errs)
			errors->push_back(e.text());
	else
		for (const auto &e : errs)
			ADD_FAILURE() << e.text();
	return p;
}

inline policy::Query ask(policy::Service s, const std::string &host, const std::string &url = "/",
			 std::optional<policy::Mac> mac = std::nullopt, std::time_t when = 0)
{
	policy::Query q;
	q.service = s;
	q.host = host;
	q.url = url;
	q.mac = mac;
	q.when = when;
	return q;
}

inline const char *name(policy::Verdict v)
{
	return v == policy::Verdict::pass ? "pass" : v == policy::Verdict::white_pass ? "white" : "block";
}

} // namespace rated_test
