#pragma once
// The daemon's command line.
#include <cstdint>
#include <optional>
#include <string>

#include "rated/log.h"

namespace rated {

struct Options {
	std::string policy;
	Level level = Level::info;
	bool syslog = false;
	unsigned delay_ms = 0;
	double drop_percent = 0;
	std::optional<uint64_t> seed; // for the dropping; random when not given
	std::string user;             // switch to this user once bound
	bool help = false;
};

extern const char kUsage[];

// Fills `o`; on a bad command line returns false with a message naming
// the option at fault.
bool parse_options(int argc, char **argv, Options &o, std::string &error);

} // namespace rated
