// printk: each call appends one line to the model's log.
#include <cstdarg>
#include <cstdio>
#include <string>
#include <vector>

#include "kmodel/host.h"
#include "kmodel/state.h"
#include "linux/kernel.h"

namespace {
std::vector<std::string> g_log;
bool g_echo;
}

int printk(const char *fmt, ...)
{
	char buf[1024];
	va_list ap;
	va_start(ap, fmt);
	int n = vsnprintf(buf, sizeof(buf), fmt, ap);
	va_end(ap);
	if (n < 0)
		return n;
	g_log.emplace_back(buf);
	if (g_echo)
		fputs(buf, stdout);
	return n < (int)sizeof(buf) ? n : (int)sizeof(buf) - 1;
}

void kmodel_bug(const char *file, int line, const char *what)
{
	fprintf(stderr, "kernel BUG at %s:%d: %s\n", file, line, what);
	abort();
}

const std::vector<std::string> &kmodel_log(void) { return g_log; }
void kmodel_log_clear(void) { g_log.clear(); }
void kmodel_log_echo(bool on) { g_echo = on; }
void kmodel_printk_reset(void) { g_log.clear(); }
