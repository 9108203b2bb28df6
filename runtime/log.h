#pragma once
// Where the filter's printk lines and dnshookd's own messages go: stderr
// (each line as the filter wrote it, "<n>" level included) or syslog.
#include <string>

namespace dnshookd {

void log_setup(int max_level, bool use_syslog);
// Moves the lines the filter logged since the last call out of the model.
void log_drain(void);
// dnshookd's own line, "dnshookd: " in front (level: syslog's, 0..7).
void log_say(int level, const std::string &text);

} // namespace dnshookd
