// The replay on the simulated router (see replayer.h).
#include "tools/replay/replayer.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <stdexcept>

#include "core/hook_registry.h"
#include "kmodel/host.h"
#include "kmodel/net.h"
#include "linux/netfilter.h"
#include "net/neighbour.h"

namespace replay {

namespace {

enum : uint8_t { NUD_REACHABLE_STATE = 0x02 };
enum : size_t { ETHER_HLEN = 14 };

const char *hook_name(const nf_hook_ops *ops)
{
	static const struct {
		const nf_hook_ops *ops;
		const char *name;
	} names[] = {
		{&hook_ops, "forward_hook"},          {&hook_ops6, "forward_hook6"},
		{&dns_hook_ops, "dns_hook"},          {&dns6_hook_ops, "dns6_hook"},
		{&pct_hook_ops, "pct_forward_hook"},  {&pct6_hook_ops, "pct_forward_hook6"},
		{&https_hook_ops, "https_forward_hook"}, {&https6_hook_ops, "https6_forward_hook"},
	};
	for (auto &n : names)
		if (n.ops == ops)
			return n.name;
	return "another hook";
}

std::string addr_key(bool v6, const uint8_t *a)
{
	return std::string(v6 ? "6:" : "4:") + std::string((const char *)a, v6 ? 16 : 4);
}

sim::Mac sim_mac(const Mac &m) { return sim::Mac{m[0], m[1], m[2], m[3], m[4], m[5]}; }

} // namespace

Replayer::Replayer(const Options &opts, const policy::Policy *policy, Report &report, ForgedPcap *forged)
	: opts_(opts), policy_(policy), report_(report), forged_(forged), lan_(opts.lan_br0, opts.lan_br1)
{
	int rc = router_.load();
	if (rc != 0)
		throw std::runtime_error("the filter did not load: init_module returned " + std::to_string(rc));
	// Whole LAN prefixes lead to their bridge without a resolved next hop;
	// each client seen in the capture gets a host route with its MAC.
	for (Side s : {Side::br0, Side::br1})
		for (const Prefix &p : s == Side::br0 ? lan_.br0() : lan_.br1())
			router_.route(p.text.c_str(), device(s), KMODEL_OUT_NONE);
	if (opts.wp)
		controls_.push_back({0, "wl_warning_page", "1"});
	if (opts.pc)
		controls_.push_back({0, "pcg_proc", "1"});
	std::vector<ControlWrite> later = opts.at;
	std::stable_sort(later.begin(), later.end(), [](auto &a, auto &b) { return a.at < b.at; });
	controls_.insert(controls_.end(), later.begin(), later.end());
	collect(0);
}

Replayer::~Replayer() { router_.unload(); }

struct net_device *Replayer::device(Side s) const
{
	switch (s) {
	case Side::br0:
		return router_.br0();
	case Side::br1:
		return router_.br1();
	default:
		return router_.wan();
	}
}

void Replayer::advance_to(double t)
{
	if (t <= now_)
		return;
	now_ = t;
	uint64_t target = uint64_t(std::floor(t * opts_.hz));
	while (target > ticks_) {
		uint64_t step = std::min<uint64_t>(target - ticks_, 1u << 30);
		router_.advance(uint32_t(step));
		ticks_ += step;
	}
}

void Replayer::run_due(double t)
{
	for (;;) {
		bool control = next_control_ < controls_.size() && controls_[next_control_].at <= t;
		bool reply = !pending_.empty() && pending_.front().at <= t;
		if (!control && !reply)
			return;
		if (control && (!reply || controls_[next_control_].at <= pending_.front().at)) {
			ControlWrite w = controls_[next_control_++];
			advance_to(w.at);
			apply(w);
		} else {
			Pending p = pending_.front();
			pending_.erase(pending_.begin());
			advance_to(p.at);
			deliver(p);
		}
	}
}

void Replayer::apply(const ControlWrite &w)
{
	ControlEvent e;
	e.time = now_;
	e.file = w.file;
	e.text = w.text;
	e.result = router_.write_proc(w.file.c_str(), w.text);
	report_.control(e);
	collect(now_);
}

void Replayer::deliver(Pending &p)
{
	p.event.time = now_;
	report_.reply(p.event);
	sum_.verdicts[p.event.verdict]++;
	daemon_.send(0, p.reply.data(), p.reply.size());
	collect(now_);
}

// What the filter did since the last look: its log lines, the packets it
// sent, the requests it made (answered now or queued for later).
void Replayer::collect(double t)
{
	for (const std::string &line : kmodel_log()) {
		int level = line.size() > 2 && line[0] == '<' && line[2] == '>' ? line[1] - '0' : 7;
		if (level <= opts_.log_level)
			report_.log(line);
	}
	kmodel_log_clear();

	for (const kmodel_tx &tx : router_.sent()) {
		SentEvent e;
		e.time = t;
		e.dev = tx.dev;
		if (tx.frame.size() > ETHER_HLEN)
			e.view = view_packet(tx.frame.data() + ETHER_HLEN, tx.frame.size() - ETHER_HLEN);
		e.kind = forged_kind(e.view);
		e.location = redirect_location(e.view);
		sum_.sent[e.kind]++;
		report_.sent(e);
		if (forged_)
			forged_->write(tx.frame, absolute(t));
	}
	router_.clear_sent();

	bool answer_now = false;
	for (const Bytes &payload : daemon_.read_payloads()) {
		Rating r = rate(policy_, payload, ++request_ids_, std::time_t(absolute(t)));
		report_.request(r.request);
		sum_.requests[r.request.service]++;
		if (!r.reply)
			continue;
		Pending p{t + opts_.delay, r.request.id, *r.reply, r.decision};
		auto at = std::upper_bound(pending_.begin(), pending_.end(), p.at,
					   [](double v, const Pending &q) { return v < q.at; });
		pending_.insert(at, p);
		answer_now = answer_now || opts_.delay == 0;
	}
	if (answer_now)
		run_due(t);
}

// A LAN client gets a host route and a neighbour entry with its MAC the
// first time it sends; the WAN's next hop is the first WAN sender's MAC.
void Replayer::learn(bool v6, Side side, const uint8_t *addr, const Mac &mac)
{
	if (side == Side::wan) {
		bool &done = v6 ? gateway6_ : gateway4_;
		if (!done) {
			sim::Mac m = sim_mac(mac);
			router_.route(v6 ? "::/0" : "0.0.0.0/0", router_.wan(), KMODEL_OUT_HH, &m);
			done = true;
		}
		return;
	}
	std::string key = addr_key(v6, addr);
	if (!known_.insert(key).second)
		return;
	char text[64];
	inet_ntop(v6 ? AF_INET6 : AF_INET, addr, text, sizeof(text));
	sim::Mac m = sim_mac(mac);
	router_.route(text, device(side), KMODEL_OUT_HH, &m);
	router_.neighbour(text, device(side), m, NUD_REACHABLE_STATE, router_.now());
}

void Replayer::packet(const CapturedPacket &p)
{
	if (!started_) {
		started_ = true;
		t0_ = p.time;
	}
	double t = p.time - t0_;
	run_due(t);
	advance_to(t);
	sum_.read++;
	sum_.capture_seconds = std::max(sum_.capture_seconds, t);

	PacketEvent e;
	e.number = p.number;
	e.time = t;
	e.len = p.len;
	e.caplen = p.caplen;
	e.view = view_packet(p.ip.data(), p.ip.size());
	if (!p.skip.empty()) {
		e.skip = p.skip;
		sum_.skipped++;
		report_.packet(e);
		return;
	}
	if (p.cut())
		sum_.cut++;

	bool v6 = (p.ip[0] >> 4) == 6;
	Side from = Side::wan, to = Side::br0;
	if (e.view.src_addr) {
		from = lan_.side(v6, e.view.src_addr);
		to = lan_.side(v6, e.view.dst_addr);
	} else {
		e.note = "IP header cut before its addresses: fed from the WAN to br0";
	}
	Mac mac = p.src_mac.value_or(from == Side::wan ? Mac(sim::kGatewayMac) : Mac(sim::kClientMac));
	if (from != Side::wan && !p.ethernet && opts_.client_mac)
		mac = *opts_.client_mac;
	if (e.view.src_addr)
		learn(v6, from, e.view.src_addr, mac);

	struct net_device *in = device(from), *out = device(to);
	Bytes frame(ETHER_HLEN + p.ip.size());
	memcpy(&frame[0], in->dev_addr, 6);
	memcpy(&frame[6], mac.data(), 6);
	frame[12] = v6 ? 0x86 : 0x08;
	frame[13] = v6 ? 0xdd : 0x00;
	memcpy(&frame[ETHER_HLEN], p.ip.data(), p.ip.size());
	sim::Verdict v = router_.forward_frame(frame, in, out);
	const nf_hook_ops *decider = kmodel_nf_last_decider();

	e.fed = true;
	sum_.fed++;
	e.in = side_name(from);
	e.out = side_name(to);
	e.pre_accept = !(v.hook == NF_INET_PRE_ROUTING && !v.accepted());
	e.reached_forward = v.hook == NF_INET_FORWARD;
	e.fwd_accept = e.reached_forward && v.accepted();
	if (!v.accepted()) {
		e.decided_by = hook_name(decider);
		sum_.drops_by[e.decided_by]++;
	}
	(e.pre_accept ? sum_.pre_accept : sum_.pre_drop)++;
	if (e.reached_forward)
		(e.fwd_accept ? sum_.fwd_accept : sum_.fwd_drop)++;
	report_.packet(e);
	collect(now_);
}

Summary Replayer::finish()
{
	run_due(INFINITY);
	return sum_;
}

} // namespace replay
