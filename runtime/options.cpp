// dnshookd's command line.
#include "runtime/options.h"

#include <getopt.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace dnshookd {

namespace {

const char kUsage[] =
	"Usage: dnshookd [OPTION]...\n"
	"Runs the web filter on this network namespace's forwarded traffic, in the\n"
	"foreground, beside a rating daemon bound to netlink unit 2, group 1.\n"
	"\n"
	"  --control DIR     mount the control files at DIR (default /run/dnshook)\n"
	"  --hz N            tick rate of the filter's clock (default 100)\n"
	"  --log-level N     show the filter's log lines of level 0..N (default 6)\n"
	"  --syslog          log to syslog instead of stderr\n"
	"  --fail-closed     drop packets when the queue is full (default: let them pass)\n"
	"  --no-bypass       queue rules without --queue-bypass: while dnshookd is not\n"
	"                    running, the traffic it would see is dropped\n"
	"  --queue-base N    first of the four NFQUEUE numbers (default 3120)\n"
	"  --help            this text\n"
	"\n"
	"Ready when it prints \"dnshookd: ready (...)\". Both services start off; write 1\n"
	"to DIR/wl_warning_page or DIR/pcg_proc to switch them on. Read-only status\n"
	"files beside them: services, tables, devices, counters.\n"
	"Exit codes: 0 after SIGINT/SIGTERM, 1 on a fatal error, 2 on a bad option,\n"
	"3 when another dnshookd runs in this network namespace.\n";

bool parse_uint(const char *text, unsigned long min, unsigned long max, unsigned long &out)
{
	char *end = nullptr;
	errno = 0;
	unsigned long v = strtoul(text, &end, 10);
	if (errno || !*text || *end || v < min || v > max)
		return false;
	out = v;
	return true;
}

} // namespace

int parse_options(int argc, char **argv, Options &opt, bool &exit_now)
{
	enum { O_CONTROL = 1, O_HZ, O_LEVEL, O_SYSLOG, O_FAIL_CLOSED, O_NO_BYPASS, O_QUEUE, O_HELP };
	static const option longopts[] = {
		{"control", required_argument, nullptr, O_CONTROL},
		{"hz", required_argument, nullptr, O_HZ},
		{"log-level", required_argument, nullptr, O_LEVEL},
		{"syslog", no_argument, nullptr, O_SYSLOG},
		{"fail-closed", no_argument, nullptr, O_FAIL_CLOSED},
		{"no-bypass", no_argument, nullptr, O_NO_BYPASS},
		{"queue-base", required_argument, nullptr, O_QUEUE},
		{"help", no_argument, nullptr, O_HELP},
		{nullptr, 0, nullptr, 0},
	};
	exit_now = false;
	opterr = 0;
	int c;
	unsigned long v;
	while ((c = getopt_long(argc, argv, "", longopts, nullptr)) != -1) {
		switch (c) {
		case O_CONTROL:
			opt.control_dir = optarg;
			break;
		case O_HZ:
			if (!parse_uint(optarg, 1, 100000, v)) {
				fprintf(stderr, "dnshookd: --hz: '%s' is not a tick rate from 1 to 100000\n", optarg);
				exit_now = true;
				return 2;
			}
			opt.hz = (unsigned)v;
			break;
		case O_LEVEL:
			if (!parse_uint(optarg, 0, 7, v)) {
				fprintf(stderr, "dnshookd: --log-level: '%s' is not a level from 0 to 7\n", optarg);
				exit_now = true;
				return 2;
			}
			opt.log_level = (int)v;
			break;
		case O_SYSLOG:
			opt.syslog = true;
			break;
		case O_FAIL_CLOSED:
			opt.fail_closed = true;
			break;
		case O_NO_BYPASS:
			opt.bypass = false;
			break;
		case O_QUEUE:
			if (!parse_uint(optarg, 0, 65532, v)) {
				fprintf(stderr, "dnshookd: --queue-base: '%s' is not a queue number up to 65532\n", optarg);
				exit_now = true;
				return 2;
			}
			opt.queue_base = (unsigned)v;
			break;
		case O_HELP:
			fputs(kUsage, stdout);
			exit_now = true;
			return 0;
		default:
			fprintf(stderr, "dnshookd: unknown option or missing value: %s\nTry 'dnshookd --help'.\n",
				argv[optind - 1]);
			exit_now = true;
			return 2;
		}
	}
	if (optind < argc) {
		fprintf(stderr, "dnshookd: unexpected argument '%s'\nTry 'dnshookd --help'.\n", argv[optind]);
		exit_now = true;
		return 2;
	}
	return 0;
}

} // namespace dnshookd
