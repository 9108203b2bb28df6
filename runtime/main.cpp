// dnshookd: the filter on a Linux router's real traffic. One process, one
// thread, one event loop, like a single-processor kernel: queued packets,
// the daemon's replies, control-file writes and conntrack events are
// taken one at a time, each with the clock read just before.
#include <signal.h>
#include <sys/epoll.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#include "kmodel/host.h"
#include "linux/module.h"
#include "runtime/channel.h"
#include "runtime/clock.h"
#include "runtime/conntrack.h"
#include "runtime/control_fs.h"
#include "runtime/devices.h"
#include "runtime/fd.h"
#include "runtime/log.h"
#include "runtime/options.h"
#include "runtime/queue.h"
#include "runtime/rtnl.h"
#include "runtime/rules.h"
#include "runtime/status.h"
#include "runtime/traversal.h"

using namespace dnshookd;

namespace {

const int kExitBusy = 3;

// One dnshookd per network namespace: an abstract socket name is per
// namespace and goes away with the process, however it ends.
Fd instance_lock(void)
{
	Fd s(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
	sockaddr_un addr{};
	addr.sun_family = AF_UNIX;
	const char name[] = "\0dnshookd";
	memcpy(addr.sun_path, name, sizeof(name) - 1);
	if (!s || bind(s.get(), (sockaddr *)&addr, offsetof(sockaddr_un, sun_path) + sizeof(name) - 1) < 0) {
		if (errno == EADDRINUSE)
			throw Fatal{"another dnshookd runs in this network namespace", kExitBusy};
		throw Fatal{std::string("instance lock: ") + strerror(errno)};
	}
	return s;
}

// The loaded filter: init_module at construction, cleanup_module at the end.
struct Module {
	Module()
	{
		int rc = init_module();
		if (rc != 0)
			throw Fatal{"the filter failed to load (" + std::to_string(rc) + ")"};
	}
	~Module() { cleanup_module(); }
	Module(const Module &) = delete;
	Module &operator=(const Module &) = delete;
};

void watch(int ep, int fd, int tag)
{
	epoll_event ev{};
	ev.events = EPOLLIN;
	ev.data.u32 = (uint32_t)tag;
	if (epoll_ctl(ep, EPOLL_CTL_ADD, fd, &ev) < 0)
		throw Fatal{std::string("epoll: ") + strerror(errno)};
}

int run(const Options &opt)
{
	sigset_t mask;
	sigemptyset(&mask);
	sigaddset(&mask, SIGINT);
	sigaddset(&mask, SIGTERM);
	sigaddset(&mask, SIGHUP);
	sigprocmask(SIG_BLOCK, &mask, nullptr);
	signal(SIGPIPE, SIG_IGN);
	Fd sigfd(signalfd(-1, &mask, SFD_CLOEXEC | SFD_NONBLOCK));

	Fd lock = instance_lock();
	log_setup(opt.log_level, opt.syslog);
	Clock clock(opt.hz);

	// Built in this order, torn down in the reverse one: the control files
	// and the rules go first, the filter last.
	auto module = std::make_unique<Module>();
	log_drain();
	Devices devices;
	Rtnl rtnl(devices);
	Conntrack conntrack;
	Channel channel;
	Traversal traversal(devices, rtnl, conntrack);
	Queue queue(opt.queue_base, !opt.fail_closed, [&](const QueuedPacket &p) {
		clock.tick();
		unsigned v = traversal.run(p);
		channel.flush_requests();
		log_drain();
		return v;
	});
	Rules rules({queue.number(Q_PRE4), queue.number(Q_PRE6), queue.number(Q_FWD4), queue.number(Q_FWD6)},
		    opt.bypass);
	rules.follow_filter();
	StatusSources sources{&traversal, &channel, &conntrack, &devices, &rules, opt.hz};
	ControlFs fs(
		opt.control_dir, {"wl_warning_page", "pcg_proc", "tblock_proc", "unblock_proc"}, status_files(),
		[&](const std::string &) {
			rules.follow_filter();
			channel.flush_requests();
			log_drain();
		},
		[&](const std::string &file) {
			clock.tick();
			return status_text(file, sources);
		});

	Fd ep(epoll_create1(EPOLL_CLOEXEC));
	enum { T_SIGNAL, T_QUEUE, T_CHANNEL, T_CONNTRACK, T_FS };
	watch(ep.get(), sigfd.get(), T_SIGNAL);
	watch(ep.get(), queue.fd(), T_QUEUE);
	watch(ep.get(), channel.fd(), T_CHANNEL);
	watch(ep.get(), conntrack.fd(), T_CONNTRACK);
	watch(ep.get(), fs.fd(), T_FS);

	fprintf(stderr, "dnshookd: ready (rules in, control files at %s)\n", opt.control_dir.c_str());
	fflush(stderr);

	for (;;) {
		epoll_event evs[8];
		int n = epoll_wait(ep.get(), evs, 8, rtnl.waiting() ? 20 : 1000);
		if (n < 0 && errno != EINTR)
			throw Fatal{std::string("epoll_wait: ") + strerror(errno)};
		for (int i = 0; i < n; i++) {
			clock.tick();
			switch (evs[i].data.u32) {
			case T_SIGNAL: {
				signalfd_siginfo si;
				if (read(sigfd.get(), &si, sizeof(si)) == sizeof(si)) {
					log_say(6, std::string("stopping on ") + strsignal((int)si.ssi_signo));
					return 0;
				}
				break;
			}
			case T_QUEUE:
				queue.on_readable();
				break;
			case T_CHANNEL:
				channel.on_readable();
				break;
			case T_CONNTRACK:
				conntrack.on_readable();
				break;
			case T_FS:
				if (!fs.on_readable())
					throw Fatal{"the control files at " + opt.control_dir + " were unmounted"};
				break;
			}
			channel.flush_requests();
			log_drain();
		}
		rtnl.sweep();
		conntrack.sweep();
	}
}

} // namespace

int main(int argc, char **argv)
{
	Options opt;
	bool exit_now;
	int rc = parse_options(argc, argv, opt, exit_now);
	if (exit_now)
		return rc;
	try {
		rc = run(opt);
	} catch (const Fatal &f) {
		log_drain();
		fprintf(stderr, "dnshookd: %s\n", f.message.c_str());
		rc = f.code;
	}
	// With the filter unloaded, the model lets go of what it holds back to
	// catch late use (freed buffers, destroyed connections), so that a leak
	// checker sees only what the filter itself keeps.
	kmodel_reset();
	return rc;
}
