#pragma once
// dnshookd's command line.
#include <string>

namespace dnshookd {

struct Options {
	std::string control_dir = "/run/dnshook";
	unsigned hz = 100;
	int log_level = 6;     // printk levels 0..7; lines above it are not shown
	bool syslog = false;
	bool fail_closed = false;
	bool bypass = true;
	unsigned queue_base = 3120; // four queues from here
};

// Parses argv. Returns 0 to run, or an exit code (0 after --help, 2 on a
// bad option, with the message printed).
int parse_options(int argc, char **argv, Options &opt, bool &exit_now);

} // namespace dnshookd
