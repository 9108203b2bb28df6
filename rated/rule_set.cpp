#include "rated/rule_set.h"

#include <algorithm>

#include "rated/host_name.h"

namespace policy {

const Rule *RuleSet::add(const Pattern &pattern, Rule rule)
{
	Pattern p = pattern;
	p.exact |= is_ip_literal(p.host); // no names lie under an address
	Entry &e = by_host_[p.host];
	if (p.path.empty()) {
		const Rule *&slot = p.exact ? e.exact : e.suffix;
		if (slot)
			return slot;
		slot = &rules_.emplace_back(std::move(rule));
		return nullptr;
	}
	for (const PathRule &pr : e.paths)
		if (pr.prefix == p.path && pr.exact == p.exact)
			return pr.rule;
	PathRule pr{ p.path, p.exact, &rules_.emplace_back(std::move(rule)) };
	// Longest prefix first; for equal prefixes the exact rule first.
	auto at = std::find_if(e.paths.begin(), e.paths.end(), [&](const PathRule &o) {
		return o.prefix.size() < pr.prefix.size() || (o.prefix.size() == pr.prefix.size() && pr.exact && !o.exact);
	});
	e.paths.insert(at, pr);
	return nullptr;
}

const Rule *RuleSet::match(const std::string &host, std::string_view path) const
{
	const Rule *by_path = nullptr, *by_host = nullptr;
	size_t best_prefix = 0;
	bool literal = is_ip_literal(host);
	for (std::string_view name = host; !name.empty(); name = literal ? std::string_view() : parent_domain(name)) {
		auto it = by_host_.find(std::string(name));
		if (it == by_host_.end())
			continue;
		const Entry &e = it->second;
		bool whole = name.size() == host.size();
		for (const PathRule &pr : e.paths) {
			if (pr.prefix.size() <= best_prefix)
				break;
			if ((whole || !pr.exact) && path.substr(0, pr.prefix.size()) == pr.prefix) {
				by_path = pr.rule;
				best_prefix = pr.prefix.size();
				break;
			}
		}
		if (!by_host)
			by_host = whole && e.exact ? e.exact : e.suffix;
	}
	return by_path ? by_path : by_host;
}

} // namespace policy
