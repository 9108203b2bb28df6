#pragma once
// The command line of dnshook-replay.
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "tools/replay/lan.h"

namespace replay {

// A write into one of the filter's control files at a capture time
// (seconds after the first packet).
struct ControlWrite {
	double at = 0;
	std::string file; // wl_warning_page, pcg_proc, tblock_proc, unblock_proc
	std::string text;
};

struct Options {
	std::vector<Prefix> lan_br0, lan_br1; // empty br0 list: the defaults
	std::string policy;                   // "": requests go unanswered
	bool wp = false, pc = false;
	unsigned hz = 100;
	double delay = 0;                     // seconds of capture time before a reply
	std::vector<ControlWrite> at;         // in the order given
	std::optional<Mac> client_mac;        // for captures without Ethernet headers
	std::string out;                      // pcap of the forged packets
	bool json = false;
	int log_level = 7;                    // filter log lines up to this level
	bool quiet = false;                   // summary only
	std::string capture;
	bool help = false;
};

// A command line that cannot be run: the message names the option at fault.
struct UsageError : std::runtime_error {
	using std::runtime_error::runtime_error;
};

Options parse_options(const std::vector<std::string> &args);
// "FILE=TEXT" into a control write; throws UsageError.
ControlWrite parse_control(const std::string &seconds, const std::string &command);
extern const char kUsage[];

} // namespace replay
