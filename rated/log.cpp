#include "rated/log.h"

#include <syslog.h>

#include <cstdio>
#include <ctime>

namespace rated {

Log::Log(Level level, bool use_syslog) : level_(level), syslog_(use_syslog)
{
	if (syslog_)
		openlog("dnshook-rated", LOG_PID, LOG_DAEMON);
}

Log::~Log()
{
	if (syslog_)
		closelog();
}

void Log::write(Level l, const std::string &line)
{
	static const char *const names[] = { "error", "warning", "info", "debug" };
	static const int priorities[] = { LOG_ERR, LOG_WARNING, LOG_INFO, LOG_DEBUG };
	if (!enabled(l))
		return;
	if (syslog_) {
		syslog(priorities[int(l)], "%s", line.c_str());
		return;
	}
	std::time_t now = std::time(nullptr);
	std::tm local{};
	localtime_r(&now, &local);
	char stamp[32];
	std::strftime(stamp, sizeof(stamp), "%Y-%m-%dT%H:%M:%S%z", &local);
	std::fprintf(stderr, "%s %s: %s\n", stamp, names[int(l)], line.c_str());
	std::fflush(stderr);
}

bool parse_level(const std::string &text, Level &out)
{
	static const struct {
		const char *name;
		Level level;
	} levels[] = { { "error", Level::error }, { "warning", Level::warning }, { "info", Level::info }, { "debug", Level::debug } };
	for (const auto &l : levels)
		if (text == l.name) {
			out = l.level;
			return true;
		}
	return false;
}

} // namespace rated
