// The daemon channel (see channel.h).
#include "runtime/channel.h"

#include <linux/netlink.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "kmodel/net.h"

namespace dnshookd {

namespace {
const int kUnit = NETLINK_USERSOCK; // 2
const uint32_t kGroup = 1;
} // namespace

Channel::Channel()
{
	sock_ = Fd(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, kUnit));
	if (!sock_)
		throw Fatal{std::string("netlink unit 2 socket: ") + strerror(errno)};
	sockaddr_nl addr{};
	addr.nl_family = AF_NETLINK;
	if (bind(sock_.get(), (sockaddr *)&addr, sizeof(addr)) < 0)
		throw Fatal{std::string("netlink unit 2 bind: ") + strerror(errno)};
	socklen_t alen = sizeof(addr);
	getsockname(sock_.get(), (sockaddr *)&addr, &alen);
	port_id_ = addr.nl_pid;
	int size = 1 << 20;
	setsockopt(sock_.get(), SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof(size));
	// The model's member of group 1 collects what the filter broadcasts.
	model_handle_ = kmodel_nl_open(kUnit, port_id_, 1u << (kGroup - 1));
	kmodel_nl_set_rcvbuf(model_handle_, 1u << 16);
}

Channel::~Channel() { kmodel_nl_close(model_handle_); }

void Channel::flush_requests(void)
{
	for (const kmodel_nl_msg &m : kmodel_nl_read(model_handle_)) {
		sockaddr_nl to{};
		to.nl_family = AF_NETLINK;
		to.nl_pid = 0;
		to.nl_groups = 1u << (m.dst_group - 1);
		ssize_t n = sendto(sock_.get(), m.bytes.data(), m.bytes.size(), 0, (sockaddr *)&to, sizeof(to));
		// The multicast is out before the kernel tries the unicast part
		// of the send to port 0, which no kernel socket of unit 2 takes
		// (ECONNREFUSED); without a listener the message is dropped
		// silently, as netlink_broadcast does for the module.
		if (n < 0 && errno != ECONNREFUSED)
			count_.request_errors++;
		else
			count_.requests++;
	}
}

void Channel::on_readable(void)
{
	std::vector<uint8_t> buf(1 << 16);
	for (;;) {
		ssize_t n = recv(sock_.get(), buf.data(), buf.size(), 0);
		if (n < 0) {
			if (errno == EINTR)
				continue;
			return; // EAGAIN, or ENOBUFS after an overflow
		}
		count_.replies++;
		kmodel_nl_send(model_handle_, buf.data(), (size_t)n);
	}
}

} // namespace dnshookd
