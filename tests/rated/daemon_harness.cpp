#include "tests/rated/daemon_harness.h"

#include <fcntl.h>
#include <linux/netlink.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <fstream>
#include <sstream>
#include <thread>

namespace rated_test {

OwnNetns::OwnNetns()
{
	old_ = open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC);
	if (unshare(CLONE_NEWNET) == 0) {
		ok_ = back_ = true;
		return;
	}
	std::string first = strerror(errno);
	uid_t uid = getuid();
	gid_t gid = getgid();
	if (unshare(CLONE_NEWUSER | CLONE_NEWNET) == 0) {
		// Root inside, so that the daemon keeps the right to join the
		// group after exec. No way back: the test process ends soon.
		std::ofstream("/proc/self/setgroups") << "deny";
		std::ofstream("/proc/self/uid_map") << "0 " << uid << " 1";
		std::ofstream("/proc/self/gid_map") << "0 " << gid << " 1";
		ok_ = true;
		return;
	}
	why_ = "unshare(CLONE_NEWNET): " + first + "; with a user namespace: " + strerror(errno);
}

OwnNetns::~OwnNetns()
{
	if (back_)
		setns(old_, CLONE_NEWNET);
	if (old_ >= 0)
		close(old_);
}

Daemon::Daemon(const std::string &policy_file, const std::vector<std::string> &args)
{
	err_file_ = policy_file + ".log";
	int pipefd[2];
	if (pipe2(pipefd, O_CLOEXEC) < 0)
		return;
	std::vector<std::string> argv = { DNSHOOK_BINARY_DIR "/rated/dnshook-rated", "--policy", policy_file };
	argv.insert(argv.end(), args.begin(), args.end());
	std::vector<char *> cargv;
	for (std::string &a : argv)
		cargv.push_back(a.data());
	cargv.push_back(nullptr);
	pid_ = fork();
	if (pid_ == 0) {
		int err = open(err_file_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
		dup2(pipefd[1], 1);
		dup2(err, 2);
		execv(cargv[0], cargv.data());
		_exit(127);
	}
	close(pipefd[1]);
	out_ = pipefd[0];
}

Daemon::~Daemon()
{
	if (pid_ > 0) {
		kill(pid_, SIGKILL);
		waitpid(pid_, nullptr, 0);
	}
	if (out_ >= 0)
		close(out_);
}

std::string Daemon::ready_line(int timeout_ms)
{
	std::string line;
	auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
	char c;
	while (std::chrono::steady_clock::now() < end) {
		pollfd p = { out_, POLLIN, 0 };
		if (poll(&p, 1, 50) <= 0)
			continue;
		if (read(out_, &c, 1) != 1)
			break;
		if (c == '\n')
			return line;
		line += c;
	}
	return "";
}

void Daemon::signal(int sig) { kill(pid_, sig); }

int Daemon::stop(int sig, int timeout_ms)
{
	kill(pid_, sig);
	for (int waited = 0; waited < timeout_ms; waited += 10) {
		int status = 0;
		if (waitpid(pid_, &status, WNOHANG) == pid_) {
			pid_ = -1;
			return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
		}
		std::this_thread::sleep_for(std::chrono::milliseconds(10));
	}
	return -1;
}

std::vector<std::string> Daemon::log() const
{
	std::ifstream in(err_file_);
	std::vector<std::string> lines;
	for (std::string l; std::getline(in, l);)
		lines.push_back(l.substr(l.find(' ') + 1));
	return lines;
}

bool Daemon::wait_log(const std::string &needle, int timeout_ms) const
{
	for (int waited = 0; waited <= timeout_ms; waited += 10) {
		for (const std::string &l : log())
			if (l.find(needle) != std::string::npos)
				return true;
		std::this_thread::sleep_for(std::chrono::milliseconds(10));
	}
	return false;
}

Channel::Channel()
{
	fd_ = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_USERSOCK);
	sockaddr_nl me{};
	me.nl_family = AF_NETLINK;
	socklen_t len = sizeof(me);
	bind(fd_, (sockaddr *)&me, sizeof(me));
	getsockname(fd_, (sockaddr *)&me, &len);
	port_id_ = me.nl_pid;
}

Channel::~Channel()
{
	if (fd_ >= 0)
		close(fd_);
}

void Channel::request(const void *payload, size_t len)
{
	Bytes b(NLMSG_SPACE(len));
	nlmsghdr h{};
	h.nlmsg_len = uint32_t(NLMSG_LENGTH(len));
	h.nlmsg_pid = port_id_;
	memcpy(b.data(), &h, sizeof(h));
	memcpy(b.data() + NLMSG_HDRLEN, payload, len);
	raw(b);
}

void Channel::raw(const Bytes &datagram)
{
	sockaddr_nl to{};
	to.nl_family = AF_NETLINK;
	to.nl_groups = 1;
	// Delivered to the group; the unicast half to port 0 finds no kernel
	// socket in a fresh namespace and fails, which does not matter here.
	sendto(fd_, datagram.data(), datagram.size(), 0, (sockaddr *)&to, sizeof(to));
}

std::optional<Bytes> Channel::receive(int timeout_ms)
{
	pollfd p = { fd_, POLLIN, 0 };
	if (poll(&p, 1, timeout_ms) <= 0)
		return std::nullopt;
	Bytes b(65536);
	ssize_t n = recv(fd_, b.data(), b.size(), 0);
	if (n < 0)
		return std::nullopt;
	b.resize(size_t(n));
	return b;
}

void write_file(const std::string &path, const std::string &text) { std::ofstream(path, std::ios::trunc) << text; }

} // namespace rated_test
