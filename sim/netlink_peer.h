#pragma once
// An in-memory user-space netlink socket: what the rating daemon holds.
#include <cstdint>
#include <vector>

#include "kmodel/net.h"
#include "sim/packet.h"

namespace sim {

class NetlinkPeer {
public:
	// Binds to `groups` (bit n-1 = group n) of `unit` with port id pid.
	explicit NetlinkPeer(int unit = 2, uint32_t pid = 4242, uint32_t groups = 1);
	~NetlinkPeer();
	NetlinkPeer(const NetlinkPeer &) = delete;
	NetlinkPeer &operator=(const NetlinkPeer &) = delete;

	// Whole messages (netlink header included) received since the last read.
	std::vector<kmodel_nl_msg> read();
	// Only the payloads (bytes after the 16-byte header, up to nlmsg_len).
	std::vector<Bytes> read_payloads();
	// Sends one message: a 16-byte header (nlmsg_len = 16 + payload size,
	// the given type, flags 0, seq 0, pid = ours) and the payload.
	int send(uint16_t type, const void *payload, size_t len);
	// Sends the bytes as they are (malformed headers included).
	int send_raw(const Bytes &bytes);
	void set_rcvbuf(size_t max_msgs);

private:
	int handle_;
	uint32_t pid_;
};

} // namespace sim
