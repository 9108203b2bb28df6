#pragma once
// The read-only status files beside the control files: "services",
// "tables", "devices", "counters". Each is a few "key value" lines made
// from the filter's state and dnshookd's counters at the time of the read.
#include <string>
#include <vector>

namespace dnshookd {

class Channel;
class Conntrack;
class Devices;
class Rules;
class Traversal;

struct StatusSources {
	const Traversal *traversal;
	const Channel *channel;
	const Conntrack *conntrack;
	const Devices *devices;
	const Rules *rules;
	unsigned hz;
};

const std::vector<std::string> &status_files(void);
std::string status_text(const std::string &file, const StatusSources &src);

} // namespace dnshookd
