// dnshookd's firewall rules (see rules.h).
#include "runtime/rules.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "core/hook_registry.h"
#include "kmodel/host.h"
#include "runtime/fd.h"
#include "runtime/log.h"

extern char **environ;

namespace dnshookd {

namespace {

const char *const kPre = "DNSHOOK_PRE";
const char *const kFwd = "DNSHOOK_FWD";

// Runs a program with `input` on its stdin; its exit status (-1 if it
// could not run). Output goes to /dev/null unless `show_errors`.
int run(const std::vector<std::string> &argv, const std::string &input, bool show_errors)
{
	int in[2];
	if (pipe2(in, O_CLOEXEC) < 0)
		return -1;
	Fd rd(in[0]), wr(in[1]);
	posix_spawn_file_actions_t fa;
	posix_spawn_file_actions_init(&fa);
	posix_spawn_file_actions_adddup2(&fa, rd.get(), 0);
	posix_spawn_file_actions_addopen(&fa, 1, "/dev/null", O_WRONLY, 0);
	if (!show_errors)
		posix_spawn_file_actions_addopen(&fa, 2, "/dev/null", O_WRONLY, 0);
	std::vector<char *> args;
	for (const std::string &a : argv)
		args.push_back(const_cast<char *>(a.c_str()));
	args.push_back(nullptr);
	pid_t pid;
	int rc = posix_spawnp(&pid, args[0], &fa, nullptr, args.data(), environ);
	posix_spawn_file_actions_destroy(&fa);
	rd.reset();
	if (rc != 0)
		return -1;
	size_t off = 0;
	while (off < input.size()) {
		ssize_t n = write(wr.get(), input.data() + off, input.size() - off);
		if (n <= 0)
			break;
		off += (size_t)n;
	}
	wr.reset();
	int status;
	while (waitpid(pid, &status, 0) < 0 && errno == EINTR)
		;
	return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

const char *tool(bool v6) { return v6 ? "ip6tables" : "iptables"; }

std::string restore_text(const std::string &rules)
{
	std::string t = "*mangle\n";
	t += std::string(":") + kPre + " - [0:0]\n:" + kFwd + " - [0:0]\n";
	t += std::string("-F ") + kPre + "\n-F " + kFwd + "\n";
	t += rules;
	// A conntrack match keeps connection tracking on in this namespace (the
	// queue reports connections only then); at a chain's end it does nothing.
	t += std::string("-A ") + kPre + " -m conntrack --ctstate INVALID -j RETURN\n";
	t += std::string("-A ") + kFwd + " -m conntrack --ctstate INVALID -j RETURN\n";
	t += "COMMIT\n";
	return t;
}

void remove_family(bool v6)
{
	const std::string t = tool(v6);
	for (const char *chain : {kPre, kFwd}) {
		const char *from = chain == kPre ? "PREROUTING" : "FORWARD";
		for (int i = 0; i < 16; i++)
			if (run({t, "-w", "-t", "mangle", "-D", from, "-j", chain}, "", false) != 0)
				break;
		run({t, "-w", "-t", "mangle", "-F", chain}, "", false);
		run({t, "-w", "-t", "mangle", "-X", chain}, "", false);
	}
}

} // namespace

void Rules::remove_all(void)
{
	remove_family(false);
	remove_family(true);
}

Rules::Rules(std::array<unsigned, 4> queues, bool bypass) : queues_(queues), bypass_(bypass)
{
	remove_all();
	for (bool v6 : {false, true}) {
		const std::string t = tool(v6);
		if (run({t + "-restore", "-w", "--noflush"}, restore_text(""), true) != 0 ||
		    run({t, "-w", "-t", "mangle", "-I", "PREROUTING", "1", "-j", kPre}, "", true) != 0 ||
		    run({t, "-w", "-t", "mangle", "-I", "FORWARD", "1", "-j", kFwd}, "", true) != 0) {
			remove_all();
			throw Fatal{"cannot install the " + t + " rules (mangle table, NFQUEUE target)"};
		}
	}
}

Rules::~Rules() { remove_all(); }

std::string Rules::chain_rules(bool v6) const
{
	std::string target_pre = " -j NFQUEUE --queue-num " + std::to_string(queues_[v6 ? 1 : 0]);
	std::string target_fwd = " -j NFQUEUE --queue-num " + std::to_string(queues_[v6 ? 3 : 2]);
	if (bypass_) {
		target_pre += " --queue-bypass";
		target_fwd += " --queue-bypass";
	}
	std::string r;
	bool mode = wp_enabled || pc_enabled;
	// The DNS hooks act only while a service is on, and only on DNS.
	if (mode) {
		r += std::string("-A ") + kPre + " -p udp --dport 53" + target_pre + "\n";
		r += std::string("-A ") + kPre + " -p udp --sport 53" + target_pre + "\n";
	}
	// The flow hooks judge every forwarded packet (IPv4 WP spares br1).
	bool pct = kmodel_nf_registered(v6 ? &pct6_hook_ops : &pct_hook_ops);
	bool https = kmodel_nf_registered(v6 ? &https6_hook_ops : &https_hook_ops);
	if (https || (pct && v6)) {
		r += std::string("-A ") + kFwd + target_fwd + "\n";
	} else if (pct) {
		r += std::string("-A ") + kFwd + " -i br1+ -j RETURN\n";
		r += std::string("-A ") + kFwd + " -o br1+ -j RETURN\n";
		r += std::string("-A ") + kFwd + target_fwd + "\n";
	} else if (mode) {
		// Only the HTTP hooks: web traffic in both directions.
		r += std::string("-A ") + kFwd + " -p tcp --dport 80" + target_fwd + "\n";
		r += std::string("-A ") + kFwd + " -p tcp --sport 80" + target_fwd + "\n";
	}
	return r;
}

bool Rules::follow_filter(void)
{
	bool ok = true;
	std::string all;
	for (bool v6 : {false, true}) {
		std::string rules = chain_rules(v6);
		all += std::string("# ") + tool(v6) + " -t mangle\n" + rules;
		if (rules == applied_[v6] && !applied_[v6].empty())
			continue;
		if (rules.empty() && applied_[v6].empty() && !text_.empty())
			continue;
		if (run({std::string(tool(v6)) + "-restore", "-w", "--noflush"}, restore_text(rules), true) != 0) {
			log_say(3, std::string("cannot rewrite the ") + tool(v6) + " rules; the previous ones stay");
			ok = false;
			continue;
		}
		applied_[v6] = rules;
	}
	text_ = all;
	return ok;
}

} // namespace dnshookd
