#pragma once
// End-to-end pieces: a network namespace of the test's own, the real
// dnshook-rated started in it, and a NETLINK_USERSOCK socket that plays
// the filter's side of the channel (requests to group 1, replies back).
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace rated_test {

using Bytes = std::vector<uint8_t>;

// Moves the calling process into a fresh network namespace (a user
// namespace too when not root); back into the old one when destroyed,
// where that is allowed. The namespace goes with its last process.
class OwnNetns {
public:
	OwnNetns();
	~OwnNetns();
	OwnNetns(const OwnNetns &) = delete;
	OwnNetns &operator=(const OwnNetns &) = delete;
	bool ok() const { return ok_; }
	const std::string &why() const { return why_; }

private:
	int old_ = -1;
	bool ok_ = false, back_ = false;
	std::string why_;
};

class Daemon {
public:
	// Starts build/rated/dnshook-rated --policy FILE ARGS...; stderr goes
	// to a file, stdout is read for the ready line.
	Daemon(const std::string &policy_file, const std::vector<std::string> &args = {});
	~Daemon(); // SIGKILL if still running
	Daemon(const Daemon &) = delete;
	Daemon &operator=(const Daemon &) = delete;

	// The first line on stdout, "" when none came within the time.
	std::string ready_line(int timeout_ms = 5000);
	void signal(int sig);
	// The exit status after SIGTERM, -1 when it did not end in time.
	int stop(int sig, int timeout_ms = 5000);
	// The log lines without their time stamps ("info: ...").
	std::vector<std::string> log() const;
	// Waits until a log line holds `needle`.
	bool wait_log(const std::string &needle, int timeout_ms = 3000) const;

private:
	int pid_ = -1, out_ = -1;
	std::string err_file_;
};

class Channel {
public:
	Channel();
	~Channel();
	Channel(const Channel &) = delete;
	Channel &operator=(const Channel &) = delete;

	// One message to group 1: a netlink header (length, type 0, our port
	// id) and the payload.
	void request(const void *payload, size_t len);
	// A datagram as it is.
	void raw(const Bytes &datagram);
	// The next datagram, nullopt when none came within the time.
	std::optional<Bytes> receive(int timeout_ms = 2000);
	uint32_t port_id() const { return port_id_; }

private:
	int fd_ = -1;
	uint32_t port_id_ = 0;
};

void write_file(const std::string &path, const std::string &text);

} // namespace rated_test
