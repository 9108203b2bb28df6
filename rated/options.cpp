#include "rated/options.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string_view>

namespace rated {

const char kUsage[] =
	"Usage: dnshook-rated --policy FILE [OPTIONS]\n"
	"\n"
	"The rating daemon of the dnshook filter. Runs in the foreground, takes the\n"
	"filter's rating requests on netlink unit 2 (NETLINK_USERSOCK), group 1,\n"
	"decides each by the policy FILE and sends one reply to the port id the\n"
	"request came from. Prints \"dnshook-rated: ready, policy FILE (N rules)\"\n"
	"on stdout once bound; logs one line per decision on stderr.\n"
	"\n"
	"Options:\n"
	"  --policy FILE       the policy (see docs/policy.md); required\n"
	"  --log-level LEVEL   error, warning, info (default: one line per decision)\n"
	"                      or debug\n"
	"  --quiet             errors only (the same as --log-level error)\n"
	"  --syslog            log to syslog (facility daemon) instead of stderr\n"
	"  --delay MS          hold every reply MS milliseconds before sending it\n"
	"  --drop PERCENT      send no reply to this share of requests (0 to 100)\n"
	"  --seed N            seed of the dropping, for repeatable runs\n"
	"  --user NAME         switch to this user once the socket is bound\n"
	"  --help              this text\n"
	"\n"
	"Signals: SIGHUP reloads the policy (a bad one is refused, every error\n"
	"logged, the old one kept); SIGINT and SIGTERM end the daemon (exit 0).\n"
	"Schedules follow the local time zone (TZ, else /etc/localtime).\n"
	"\n"
	"Exit status: 0 on a signal or --help, 1 when the socket cannot be opened\n"
	"or the user not taken, 2 for a bad command line, 3 for a bad policy.\n";

namespace {

bool number(const char *text, unsigned long long max, unsigned long long &out)
{
	char *end = nullptr;
	errno = 0;
	if (!*text || *text == '-')
		return false;
	out = std::strtoull(text, &end, 10);
	return !errno && *end == 0 && out <= max;
}

} // namespace

bool parse_options(int argc, char **argv, Options &o, std::string &error)
{
	for (int i = 1; i < argc; i++) {
		std::string_view opt = argv[i];
		if (opt == "--help" || opt == "-h") {
			o.help = true;
			return true;
		}
		if (opt == "--quiet") {
			o.level = Level::error;
			continue;
		}
		if (opt == "--syslog") {
			o.syslog = true;
			continue;
		}
		static const std::string_view with_value[] = { "--policy", "--log-level", "--delay", "--drop", "--seed", "--user" };
		bool known = false;
		for (std::string_view w : with_value)
			known |= w == opt;
		if (!known) {
			error = "unknown option '" + std::string(opt) + "'";
			return false;
		}
		if (i + 1 >= argc) {
			error = "option " + std::string(opt) + " needs a value";
			return false;
		}
		const char *val = argv[++i];
		unsigned long long n = 0;
		if (opt == "--policy") {
			o.policy = val;
		} else if (opt == "--user") {
			o.user = val;
		} else if (opt == "--log-level") {
			if (!parse_level(val, o.level)) {
				error = "--log-level: '" + std::string(val) + "' is none of error, warning, info, debug";
				return false;
			}
		} else if (opt == "--delay") {
			if (!number(val, 3600000, n)) {
				error = "--delay: '" + std::string(val) + "' is no number of milliseconds (0 to 3600000)";
				return false;
			}
			o.delay_ms = unsigned(n);
		} else if (opt == "--drop") {
			char *end = nullptr;
			double d = std::strtod(val, &end);
			if (!*val || *end || !(d >= 0 && d <= 100)) {
				error = "--drop: '" + std::string(val) + "' is no percentage (0 to 100)";
				return false;
			}
			o.drop_percent = d;
		} else if (opt == "--seed") {
			if (!number(val, ~0ull, n)) {
				error = "--seed: '" + std::string(val) + "' is no unsigned number";
				return false;
			}
			o.seed = n;
		}
	}
	if (o.policy.empty()) {
		error = "--policy FILE is required";
		return false;
	}
	return true;
}

} // namespace rated
