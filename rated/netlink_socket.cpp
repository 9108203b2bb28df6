#include "rated/netlink_socket.h"

#include <linux/netlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <system_error>

namespace rated {

NetlinkSocket::NetlinkSocket(int unit, uint32_t groups) : buf_(65536)
{
	fd_ = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, unit);
	if (fd_ < 0)
		throw std::system_error(errno, std::generic_category(), "netlink socket (unit " + std::to_string(unit) + ")");
	sockaddr_nl me{};
	me.nl_family = AF_NETLINK;
	me.nl_groups = groups;
	socklen_t len = sizeof(me);
	if (bind(fd_, reinterpret_cast<sockaddr *>(&me), sizeof(me)) < 0 ||
	    getsockname(fd_, reinterpret_cast<sockaddr *>(&me), &len) < 0) {
		int err = errno;
		close(fd_);
		std::string what = "binding to netlink group mask " + std::to_string(groups);
		if (err == EPERM)
			what += " (this kernel lets only CAP_NET_ADMIN join the group: run as root, or give the "
				"binary that capability; --user NAME drops root once bound)";
		throw std::system_error(err, std::generic_category(), what);
	}
	port_id_ = me.nl_pid;
	// Room for bursts of requests: the filter never sends one twice.
	int size = 1 << 20;
	if (setsockopt(fd_, SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof(size)) < 0)
		setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &size, sizeof(size));
}

NetlinkSocket::~NetlinkSocket()
{
	if (fd_ >= 0)
		close(fd_);
}

bool NetlinkSocket::receive(std::vector<Message> &out)
{
	sockaddr_nl from{};
	socklen_t flen = sizeof(from);
	ssize_t n = recvfrom(fd_, buf_.data(), buf_.size(), MSG_TRUNC, reinterpret_cast<sockaddr *>(&from), &flen);
	if (n < 0) {
		if (errno == ENOBUFS) {
			overflows_++;
			return true; // more may wait behind the loss
		}
		return false;
	}
	size_t have = std::min(size_t(n), buf_.size());
	size_t at = 0;
	do {
		Message m;
		m.sender = from.nl_pid;
		nlmsghdr h{};
		if (have - at < sizeof(h)) {
			m.bad_header = true;
			out.push_back(std::move(m));
			break;
		}
		memcpy(&h, buf_.data() + at, sizeof(h));
		if (h.nlmsg_len < sizeof(h) || h.nlmsg_len > have - at) {
			m.bad_header = true;
			out.push_back(std::move(m));
			break;
		}
		m.payload.assign(buf_.begin() + at + NLMSG_HDRLEN, buf_.begin() + at + h.nlmsg_len);
		out.push_back(std::move(m));
		at += NLMSG_ALIGN(h.nlmsg_len);
	} while (at < have);
	return true;
}

int NetlinkSocket::send(uint32_t port, const void *payload, size_t len)
{
	std::vector<uint8_t> msg(NLMSG_SPACE(len));
	nlmsghdr h{};
	h.nlmsg_len = uint32_t(NLMSG_LENGTH(len));
	h.nlmsg_pid = port_id_;
	memcpy(msg.data(), &h, sizeof(h));
	memcpy(msg.data() + NLMSG_HDRLEN, payload, len);
	sockaddr_nl to{};
	to.nl_family = AF_NETLINK;
	to.nl_pid = port;
	if (sendto(fd_, msg.data(), msg.size(), 0, reinterpret_cast<sockaddr *>(&to), sizeof(to)) < 0)
		return errno;
	return 0;
}

} // namespace rated
