#pragma once
// What the replay shows: one line per packet with what followed from it
// (the filter's log, rating requests and replies, forged packets), control
// writes, and a summary at the end; as text or as JSON lines.
#include <cstdint>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "tools/replay/packet_view.h"

namespace replay {

struct PacketEvent {
	uint64_t number = 0;
	double time = 0;         // seconds after the first packet
	uint32_t len = 0, caplen = 0;
	PacketView view;
	std::string in, out;     // devices; empty when not fed
	std::string skip;        // why it was not fed
	bool fed = false;
	bool pre_accept = false; // PRE_ROUTING's verdict
	bool reached_forward = false;
	bool fwd_accept = false;
	std::string decided_by;  // the hook function that dropped it
	std::string note;        // what else a reader should know
};

struct RequestEvent {
	uint64_t id = 0;
	std::string service;     // "WP", "PC", or "?"
	int family = 0;
	std::string src, dst;    // address text ("" when not filled)
	uint16_t sport = 0, dport = 0;
	std::string host, url, mac;
	std::string problem;     // why it cannot be answered ("" if it can)
};

struct ReplyEvent {
	uint64_t id = 0;
	double time = 0;
	std::string verdict, rule, device, block_page;
};

struct SentEvent {
	double time = 0;
	std::string dev;
	PacketView view;
	std::string kind, location;
};

struct ControlEvent {
	double time = 0;
	std::string file, text;
	int result = 0;
};

struct Summary {
	uint64_t read = 0, fed = 0, skipped = 0, cut = 0;
	uint64_t pre_accept = 0, pre_drop = 0, fwd_accept = 0, fwd_drop = 0;
	std::map<std::string, uint64_t> drops_by;   // hook function -> drops
	std::map<std::string, uint64_t> requests;   // "WP", "PC", "?"
	std::map<std::string, uint64_t> verdicts;   // "PASS", ...
	std::map<std::string, uint64_t> sent;       // forged_kind -> count
	double capture_seconds = 0, wall_seconds = 0;
	std::string error;                          // why the replay stopped early
};

class Report {
public:
	Report(FILE *out, bool json, bool quiet) : out_(out), json_(json), quiet_(quiet) {}

	void start(const std::string &capture, const std::string &link);
	void packet(const PacketEvent &e);
	void log(const std::string &line);
	void request(const RequestEvent &e);
	void reply(const ReplyEvent &e);
	void sent(const SentEvent &e);
	void control(const ControlEvent &e);
	void summary(const Summary &s);

private:
	void put(const std::string &line);
	FILE *out_;
	bool json_, quiet_;
};

// JSON string literal of the bytes (control and non-ASCII bytes escaped).
std::string json_string(const std::string &s);

} // namespace replay
