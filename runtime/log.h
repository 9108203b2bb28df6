#pragma once
// Where the filter's printk lines and dnshookd's own messages go: stderr
// (each line as the filter wrote it, "<n>" level included) or syslog.
#include <string>

namespace dnshookd {

void log_setup(int max_level, bool use_syslog);
// A printk line as dnshookd writes it, the way the kernel's /dev/kmsg shows
// one: trailing newlines dropped, and any other byte below 0x20, from 0x7f
// on, and the backslash written as \xNN. The filter logs names from packets,
// the daemon's replies and control-file writes; none can split a line.
std::string log_text(const std::string &line);
// Moves the lines the filter logged since the last call out of the model.
void log_drain(void);
// dnshookd's own line, "dnshookd: " in front (level: syslog's, 0..7).
void log_say(int level, const std::string &text);

} // namespace dnshookd
