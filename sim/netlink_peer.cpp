// In-memory user-space netlink socket (see netlink_peer.h).
#include "sim/netlink_peer.h"

#include <cstring>

#include "linux/netlink.h"

namespace sim {

NetlinkPeer::NetlinkPeer(int unit, uint32_t pid, uint32_t groups)
	: handle_(kmodel_nl_open(unit, pid, groups)), pid_(pid)
{
}

NetlinkPeer::~NetlinkPeer() { kmodel_nl_close(handle_); }

std::vector<kmodel_nl_msg> NetlinkPeer::read() { return kmodel_nl_read(handle_); }

std::vector<Bytes> NetlinkPeer::read_payloads()
{
	std::vector<Bytes> out;
	for (const kmodel_nl_msg &m : read()) {
		struct nlmsghdr h;
		if (m.bytes.size() < sizeof(h))
			continue;
		memcpy(&h, m.bytes.data(), sizeof(h));
		size_t end = h.nlmsg_len < m.bytes.size() ? h.nlmsg_len : m.bytes.size();
		if (end < sizeof(h))
			end = sizeof(h);
		out.emplace_back(m.bytes.begin() + sizeof(h), m.bytes.begin() + end);
	}
	return out;
}

int NetlinkPeer::send(uint16_t type, const void *payload, size_t len)
{
	struct nlmsghdr h = {};
	h.nlmsg_len = (uint32_t)(sizeof(h) + len);
	h.nlmsg_type = type;
	h.nlmsg_pid = pid_;
	Bytes b(sizeof(h) + len);
	memcpy(b.data(), &h, sizeof(h));
	if (len)
		memcpy(b.data() + sizeof(h), payload, len);
	return send_raw(b);
}

int NetlinkPeer::send_raw(const Bytes &bytes) { return kmodel_nl_send(handle_, bytes.data(), bytes.size()); }

void NetlinkPeer::set_rcvbuf(size_t max_msgs) { kmodel_nl_set_rcvbuf(handle_, max_msgs); }

} // namespace sim
