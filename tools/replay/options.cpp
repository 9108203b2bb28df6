// Command-line parsing of dnshook-replay (see options.h).
#include "tools/replay/options.h"

#include <cmath>
#include <cstdlib>

namespace replay {

const char kUsage[] = R"(Usage: dnshook-replay [OPTION]... CAPTURE

Replays a capture (pcap or pcapng; Ethernet, Linux cooked SLL/SLL2 or raw
IP) through the filter on the simulated router, packet by packet, and shows
what the filter decided at PRE_ROUTING and FORWARD, what it asked the
rating daemon, what the daemon answered and what the filter sent itself.

Where a packet is:
  --lan PREFIX          a LAN prefix behind br0 (repeatable). Given once, it
                        replaces the defaults 10.0.0.0/8, 172.16.0.0/12,
                        192.168.0.0/16 and fc00::/7.
  --lan-br1 PREFIX      a LAN prefix behind br1 (repeatable); the br0 list
                        stays as it is. The longest matching prefix decides;
                        everything else is the WAN (eth0).
  --mac MAC             the client's MAC for captures without Ethernet
                        headers (default: the cooked header's address, or
                        00:11:22:33:44:55).

The filter:
  --wp                  switch the warning-page service on at the start
  --pc                  switch parental control on at the start
  --at SECONDS FILE=TEXT
                        write TEXT into the control file FILE (one of
                        wl_warning_page, pcg_proc, tblock_proc,
                        unblock_proc) SECONDS after the first packet, e.g.
                        --at 12.5 'tblock_proc=add 00:11:22:33:44:55'
  --hz N                the kernel's tick rate for the capture's clock
                        (default 100)

The rating daemon:
  --policy FILE         answer rating requests from this policy (without
                        it, requests are shown and never answered)
  --delay SECONDS       answer after this much capture time (default 0:
                        right after the packet that asked)

Output:
  --json                one JSON object a line instead of text
  --log-level N         show the filter's log lines up to level N (0-7,
                        default 7; -1 shows none)
  --quiet               only the summary
  --out FILE            write every packet the filter forged to FILE (pcap,
                        Ethernet)
  --help                this text

Exit status: 0 the capture was replayed to its end; 1 the capture could
not be read (missing file, unknown link type, corrupt or truncated data:
the packets before the fault are replayed and summed up); 2 a bad command
line or policy.
)";

namespace {

double parse_seconds(const std::string &text, const std::string &option)
{
	char *end = nullptr;
	double v = strtod(text.c_str(), &end);
	if (text.empty() || *end != '\0' || !std::isfinite(v) || v < 0)
		throw UsageError(option + ": '" + text + "' is not a number of seconds");
	return v;
}

Prefix prefix(const std::string &text, const std::string &option)
{
	Prefix p;
	if (!parse_prefix(text, &p))
		throw UsageError(option + ": '" + text + "' is not an address prefix (like 192.168.1.0/24 or fd00::/8)");
	return p;
}

} // namespace

ControlWrite parse_control(const std::string &seconds, const std::string &command)
{
	ControlWrite w;
	w.at = parse_seconds(seconds, "--at");
	size_t eq = command.find('=');
	if (eq == std::string::npos)
		throw UsageError("--at " + seconds + ": '" + command + "' is not FILE=TEXT");
	w.file = command.substr(0, eq);
	w.text = command.substr(eq + 1);
	if (w.file.rfind("/proc/", 0) == 0)
		w.file = w.file.substr(6);
	for (const char *f : {"wl_warning_page", "pcg_proc", "tblock_proc", "unblock_proc"})
		if (w.file == f)
			return w;
	throw UsageError("--at " + seconds + ": unknown control file '" + w.file +
			 "' (wl_warning_page, pcg_proc, tblock_proc or unblock_proc)");
}

Options parse_options(const std::vector<std::string> &args)
{
	Options o;
	for (size_t i = 0; i < args.size(); i++) {
		const std::string &a = args[i];
		auto value = [&](const char *what) -> const std::string & {
			if (i + 1 >= args.size())
				throw UsageError(a + " needs " + what);
			return args[++i];
		};
		if (a == "--help" || a == "-h") {
			o.help = true;
		} else if (a == "--lan") {
			o.lan_br0.push_back(prefix(value("a prefix"), a));
		} else if (a == "--lan-br1") {
			o.lan_br1.push_back(prefix(value("a prefix"), a));
		} else if (a == "--mac") {
			Mac m;
			if (!parse_mac(value("a MAC address"), &m))
				throw UsageError("--mac: '" + args[i] + "' is not a MAC address (like 00:11:22:33:44:55)");
			o.client_mac = m;
		} else if (a == "--policy") {
			o.policy = value("a file");
		} else if (a == "--wp") {
			o.wp = true;
		} else if (a == "--pc") {
			o.pc = true;
		} else if (a == "--hz") {
			const std::string &v = value("a number");
			char *end = nullptr;
			unsigned long hz = strtoul(v.c_str(), &end, 10);
			if (v.empty() || *end || hz == 0 || hz > 100000)
				throw UsageError("--hz: '" + v + "' is not a tick rate between 1 and 100000");
			o.hz = unsigned(hz);
		} else if (a == "--delay") {
			o.delay = parse_seconds(value("seconds"), a);
		} else if (a == "--at") {
			const std::string &when = value("SECONDS FILE=TEXT");
			o.at.push_back(parse_control(when, value("FILE=TEXT after the seconds")));
		} else if (a == "--out") {
			o.out = value("a file");
		} else if (a == "--json") {
			o.json = true;
		} else if (a == "--quiet") {
			o.quiet = true;
		} else if (a == "--log-level") {
			const std::string &v = value("a level");
			if (v != "-1" && (v.size() != 1 || v[0] < '0' || v[0] > '7'))
				throw UsageError("--log-level: '" + v + "' is not a level from -1 to 7");
			o.log_level = std::stoi(v);
		} else if (a.size() > 1 && a[0] == '-') {
			throw UsageError("unknown option '" + a + "'");
		} else if (o.capture.empty()) {
			o.capture = a;
		} else {
			throw UsageError("one capture only: '" + o.capture + "' and '" + a + "'");
		}
	}
	if (!o.help && o.capture.empty())
		throw UsageError("no capture given");
	return o;
}

} // namespace replay
