// Deciding: the device's rules, then the section's, then an open time
// window, then the defaults.
#include "rated/policy.h"

#include "rated/host_name.h"
#include "rated/policy_impl.h"

namespace policy {

std::string Error::text() const
{
	return line ? file + ":" + std::to_string(line) + ": " + message : file + ": " + message;
}

Policy::Policy(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
Policy::~Policy() = default;

const std::string &Policy::name() const { return impl_->name; }
size_t Policy::rule_count() const { return impl_->rules; }
size_t Policy::device_count() const { return impl_->devices.size(); }

namespace {

const ScheduledRule *open_window(const Section &s, const std::tm &local)
{
	for (const ScheduledRule &sr : s.schedules)
		if (sr.window.open(local))
			return &sr;
	return nullptr;
}

} // namespace

Decision Policy::decide(const Query &q) const
{
	const Impl &p = *impl_;
	const Device *dev = nullptr;
	if (q.service == Service::pc && q.mac) {
		auto it = p.devices.find(*q.mac);
		if (it != p.devices.end())
			dev = &it->second;
	}
	const Section &svc = q.service == Service::wp ? p.wp : p.pc;
	const std::string host = canonical_host(q.host);

	const Rule *rule = dev ? dev->section.rules.match(host, q.url) : nullptr;
	if (!rule)
		rule = svc.rules.match(host, q.url);
	if (!rule && q.service == Service::pc) {
		std::tm local{};
		localtime_r(&q.when, &local);
		const ScheduledRule *w = dev ? open_window(dev->section, local) : nullptr;
		if (!w)
			w = open_window(svc, local);
		if (w)
			rule = &w->rule;
	}
	if (!rule && dev && dev->section.fallback)
		rule = &*dev->section.fallback;
	if (!rule && svc.fallback)
		rule = &*svc.fallback;

	Decision d;
	d.device = dev ? dev->name : "";
	d.verdict = rule ? rule->verdict : Verdict::pass;
	d.rule = rule ? p.name + ":" + std::to_string(rule->line) + ": " + rule->text : "no rule: pass";
	// The filter blocks a WP flow on any verdict but PASS and BLOCK.
	if (q.service == Service::wp && q.flow && d.verdict == Verdict::white_pass) {
		d.verdict = Verdict::pass;
		d.rule += " (as pass: a WP flow knows no white)";
	}
	if (d.verdict != Verdict::block)
		return d;

	const std::optional<BlockPage> *page = &p.block_page;
	if (svc.block_page)
		page = &svc.block_page;
	if (dev && dev->section.block_page)
		page = &dev->section.block_page;
	if (*page) {
		PageFields f;
		f.host = q.host;
		f.path = q.url;
		f.service = q.service == Service::wp ? "wp" : "pc";
		f.mac = q.service == Service::pc && q.mac ? mac_text(*q.mac) : "";
		f.device = dev && !dev->name.empty() ? dev->name : f.mac;
		f.client = q.client;
		d.block_page = (*page)->render(f);
	}
	return d;
}

} // namespace policy
