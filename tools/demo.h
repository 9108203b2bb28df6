#pragma once
// The demo's parts. Each plays one story on a freshly booted router and
// prints what a person watching the router would see.
#include <string>

namespace sim {
class Router;
}

// Prints a shell-like command line before it runs, and its result after
// the kernel log lines it caused.
void demo_command(const std::string &command);
void demo_result(int result);

// Loading, the switch files, unloading.
void demo_switches(void);
// An HTTP client: one allowed site, one blocked site.
void demo_http(void);
// A name lookup followed by a non-HTTP flow, for each service.
void demo_flows(void);
