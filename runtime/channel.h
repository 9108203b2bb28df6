#pragma once
// The daemon channel on a real NETLINK_USERSOCK (unit 2) socket. What the
// filter broadcasts to group 1 inside the model is sent to group 1 of the
// host's unit 2, byte for byte; whatever arrives on the socket, from any
// sender, goes to the filter's netlink input as a buffer, as the kernel
// would deliver a daemon's write. The daemon answers this socket's port id
// (a process cannot be port 0).
#include <cstdint>

#include "runtime/fd.h"

namespace dnshookd {

struct ChannelCount {
	uint64_t requests = 0;      // sent to group 1
	uint64_t request_errors = 0; // sends that failed (no listener is not one)
	uint64_t replies = 0;       // buffers handed to the filter
};

class Channel {
public:
	Channel();
	~Channel();
	Channel(const Channel &) = delete;
	Channel &operator=(const Channel &) = delete;

	int fd(void) const { return sock_.get(); }
	uint32_t port_id(void) const { return port_id_; }
	// Sends what the filter broadcast since the last call.
	void flush_requests(void);
	// Reads every waiting message into the filter.
	void on_readable(void);
	const ChannelCount &count(void) const { return count_; }

private:
	Fd sock_;
	uint32_t port_id_ = 0;
	int model_handle_ = 0; // the model's user-side socket in group 1
	ChannelCount count_;
};

} // namespace dnshookd
