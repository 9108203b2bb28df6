// The filter's log lines and dnshookd's own messages.
#include "runtime/log.h"

#include <syslog.h>

#include <cstdio>

#include "common/escape.h"
#include "kmodel/host.h"

namespace dnshookd {

namespace {
int g_max = 6;
bool g_syslog;

// "<n>" in front of a printk line; 4 (the kernel's default) when absent.
int line_level(const std::string &line, size_t &text_start)
{
	if (line.size() >= 3 && line[0] == '<' && line[1] >= '0' && line[1] <= '7' && line[2] == '>') {
		text_start = 3;
		return line[1] - '0';
	}
	text_start = 0;
	return 4;
}
} // namespace

std::string log_text(const std::string &line)
{
	size_t end = line.size();
	while (end && line[end - 1] == '\n')
		end--;
	return dnshook::escape_bytes(std::string_view(line).substr(0, end), true);
}

void log_setup(int max_level, bool use_syslog)
{
	g_max = max_level;
	g_syslog = use_syslog;
	if (g_syslog)
		openlog("dnshookd", LOG_PID, LOG_DAEMON);
}

void log_drain(void)
{
	const auto &lines = kmodel_log();
	for (const std::string &line : lines) {
		size_t start;
		int level = line_level(line, start);
		if (level > g_max)
			continue;
		if (g_syslog)
			syslog(level, "%s", log_text(line.substr(start)).c_str());
		else
			fprintf(stderr, "%s\n", log_text(line).c_str());
	}
	kmodel_log_clear();
	fflush(stderr);
}

void log_say(int level, const std::string &text)
{
	if (g_syslog)
		syslog(level, "%s", text.c_str());
	else
		fprintf(stderr, "dnshookd: %s\n", text.c_str());
	fflush(stderr);
}

} // namespace dnshookd
