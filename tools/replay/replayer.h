#pragma once
// The replay: the filter loaded on the simulated router, every captured
// packet taken through PRE_ROUTING and FORWARD between the devices its
// addresses put it on, the clock driven by the capture's timestamps, the
// rating daemon answering from the policy, control-file writes at their
// capture times.
#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "sim/netlink_peer.h"
#include "sim/router.h"
#include "tools/replay/capture.h"
#include "tools/replay/forged_pcap.h"
#include "tools/replay/lan.h"
#include "tools/replay/options.h"
#include "tools/replay/rater.h"
#include "tools/replay/report.h"

namespace replay {

class Replayer {
public:
	// policy and forged may be null. Throws std::runtime_error when the
	// filter does not load.
	Replayer(const Options &opts, const policy::Policy *policy, Report &report, ForgedPcap *forged);
	~Replayer();
	Replayer(const Replayer &) = delete;
	Replayer &operator=(const Replayer &) = delete;

	void packet(const CapturedPacket &p);
	// Carries out the control writes and replies still due, and sums up.
	Summary finish();

private:
	struct Pending {
		double at;
		uint64_t id;
		wire::Record reply;
		ReplyEvent event;
	};

	void advance_to(double t);
	void run_due(double t);
	void apply(const ControlWrite &w);
	void deliver(Pending &p);
	void collect(double t);
	void learn(bool v6, Side side, const uint8_t *addr, const Mac &mac);
	struct net_device *device(Side s) const;
	double absolute(double t) const { return t0_ + t; }

	const Options &opts_;
	const policy::Policy *policy_;
	Report &report_;
	ForgedPcap *forged_;
	LanMap lan_;
	sim::Router router_;
	sim::NetlinkPeer daemon_;

	bool started_ = false;
	double t0_ = 0, now_ = 0;  // first packet's time; seconds after it
	uint64_t ticks_ = 0;       // jiffies advanced since the start
	std::vector<ControlWrite> controls_; // in time order
	size_t next_control_ = 0;
	std::vector<Pending> pending_;      // in due order
	uint64_t request_ids_ = 0;
	std::set<std::string> known_;       // addresses with a host route and a neighbour entry
	bool gateway4_ = false, gateway6_ = false;
	Summary sum_;
};

} // namespace replay
