// dnshook-rated: answers the filter's rating requests from a policy file.
#include <grp.h>
#include <poll.h>
#include <pwd.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <deque>
#include <random>
#include <system_error>

#include "rated/netlink_socket.h"
#include "rated/options.h"
#include "rated/responder.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kUnit = 2;        // NETLINK_USERSOCK
constexpr uint32_t kGroups = 1; // group 1

class SignalFd {
public:
	SignalFd()
	{
		sigset_t set;
		sigemptyset(&set);
		for (int s : { SIGHUP, SIGINT, SIGTERM })
			sigaddset(&set, s);
		if (sigprocmask(SIG_BLOCK, &set, nullptr) < 0 || (fd_ = signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK)) < 0)
			throw std::system_error(errno, std::generic_category(), "signalfd");
	}
	~SignalFd() { close(fd_); }
	SignalFd(const SignalFd &) = delete;
	SignalFd &operator=(const SignalFd &) = delete;
	int fd() const { return fd_; }
	// The next pending signal, 0 when none.
	int next()
	{
		signalfd_siginfo si{};
		return read(fd_, &si, sizeof(si)) == ssize_t(sizeof(si)) ? int(si.ssi_signo) : 0;
	}

private:
	int fd_ = -1;
};

void become(const std::string &user)
{
	errno = 0;
	passwd *pw = getpwnam(user.c_str());
	if (!pw)
		throw std::runtime_error("--user: no user '" + user + "'");
	if (setgroups(0, nullptr) < 0 || setgid(pw->pw_gid) < 0 || setuid(pw->pw_uid) < 0)
		throw std::system_error(errno, std::generic_category(), "--user: switching to '" + user + "'");
}

struct Pending {
	Clock::time_point due;
	uint32_t port;
	wire::Record reply;
};

int run(const rated::Options &o)
{
	rated::Log log(o.level, o.syslog);
	std::vector<policy::Error> errors;
	std::unique_ptr<policy::Policy> pol = policy::Policy::load_file(o.policy, errors);
	if (!pol) {
		rated::log_errors(log, errors);
		log.error("policy " + o.policy + " not loaded: " + std::to_string(errors.size()) + " errors");
		return 3;
	}
	rated::Responder responder(std::move(pol), log);

	std::unique_ptr<SignalFd> signals;
	std::unique_ptr<rated::NetlinkSocket> sock;
	try {
		signals = std::make_unique<SignalFd>();
		sock = std::make_unique<rated::NetlinkSocket>(kUnit, kGroups);
		if (!o.user.empty())
			become(o.user);
	} catch (const std::exception &e) {
		log.error(e.what());
		return 1;
	}

	std::mt19937_64 rng(o.seed ? *o.seed : std::random_device{}());
	std::uniform_real_distribution<double> percent(0, 100);
	std::deque<Pending> pending; // due in order: every reply waits the same delay
	uint64_t dropped = 0, send_failed = 0;
	bool told_overflow = false;

	std::printf("dnshook-rated: ready, policy %s (%zu rules)\n", o.policy.c_str(), responder.policy().rule_count());
	std::fflush(stdout);

	auto flush_due = [&](Clock::time_point now) {
		while (!pending.empty() && pending.front().due <= now) {
			const Pending &p = pending.front();
			if (int err = sock->send(p.port, p.reply.data(), p.reply.size())) {
				if (!send_failed++)
					log.error("sending a reply to port id " + std::to_string(p.port) + ": " + std::strerror(err));
			}
			pending.pop_front();
		}
	};

	std::vector<rated::NetlinkSocket::Message> msgs;
	for (;;) {
		int timeout = -1;
		if (!pending.empty()) {
			auto wait = std::chrono::duration_cast<std::chrono::milliseconds>(pending.front().due - Clock::now());
			timeout = int(std::max<int64_t>(0, wait.count() + 1));
		}
		pollfd fds[2] = { { sock->fd(), POLLIN, 0 }, { signals->fd(), POLLIN, 0 } };
		if (poll(fds, 2, timeout) < 0 && errno != EINTR) {
			log.error(std::string("poll: ") + std::strerror(errno));
			return 1;
		}
		// Requests first: a reload never loses one already queued.
		while (msgs.clear(), sock->receive(msgs)) {
			if (sock->overflows() && !told_overflow) {
				told_overflow = true;
				log.error("the socket's receive buffer overflowed: requests were lost (counted from now on)");
			}
			for (const auto &m : msgs) {
				if (m.bad_header) {
					responder.bad_header();
					continue;
				}
				auto reply = responder.answer(m.payload.data(), m.payload.size(), std::time(nullptr));
				if (!reply)
					continue;
				if (o.drop_percent > 0 && percent(rng) < o.drop_percent) {
					dropped++;
					log.write(rated::Level::debug, "reply to port id " + std::to_string(m.sender) + " dropped (--drop)");
					continue;
				}
				if (log.enabled(rated::Level::debug))
					log.write(rated::Level::debug, "reply to port id " + std::to_string(m.sender) +
										   (o.delay_ms ? " in " + std::to_string(o.delay_ms) + " ms" : ""));
				pending.push_back({ Clock::now() + std::chrono::milliseconds(o.delay_ms), m.sender, *reply });
			}
			flush_due(Clock::now());
		}
		flush_due(Clock::now());
		for (int s; (s = signals->next());) {
			if (s == SIGHUP) {
				responder.reload(o.policy);
				continue;
			}
			const rated::Counters &c = responder.counters();
			log.warning("stopping: " + std::to_string(c.answered) + " requests answered, " +
				    std::to_string(dropped) + " replies dropped on purpose, " +
				    std::to_string(pending.size()) + " not yet due, " +
				    std::to_string(c.rejected[0] + c.rejected[1] + c.rejected[2] + c.bad_header) +
				    " messages ignored, " + std::to_string(send_failed) + " sends failed, " +
				    std::to_string(sock->overflows()) + " buffer overflows");
			return 0;
		}
	}
}

} // namespace

int main(int argc, char **argv)
{
	rated::Options o;
	std::string error;
	if (!rated::parse_options(argc, argv, o, error)) {
		std::fprintf(stderr, "dnshook-rated: %s\n\n%s", error.c_str(), rated::kUsage);
		return 2;
	}
	if (o.help) {
		std::fputs(rated::kUsage, stdout);
		return 0;
	}
	return run(o);
}
