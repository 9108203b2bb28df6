#pragma once
// The daemon's end of the rating channel: a NETLINK_USERSOCK socket bound
// to the filter's multicast group. Requests arrive by multicast; replies
// go back to the port id each request came from.
#include <cstddef>
#include <cstdint>
#include <vector>

namespace rated {

class NetlinkSocket {
public:
	// Throws std::system_error naming the step that failed.
	NetlinkSocket(int unit, uint32_t groups);
	~NetlinkSocket();
	NetlinkSocket(const NetlinkSocket &) = delete;
	NetlinkSocket &operator=(const NetlinkSocket &) = delete;

	int fd() const { return fd_; }
	uint32_t port_id() const { return port_id_; }
	// Times the receive buffer overflowed and requests were lost.
	uint64_t overflows() const { return overflows_; }

	struct Message {
		uint32_t sender = 0;          // the port id the datagram came from
		bool bad_header = false;      // too short, or a length it does not hold
		std::vector<uint8_t> payload; // the bytes after the netlink header
	};
	// Reads one datagram without blocking and appends its messages; false
	// when there was none to read.
	bool receive(std::vector<Message> &out);
	// One message (header: length, type 0, our port id) to a port id; the
	// errno of a failure, else 0.
	int send(uint32_t port, const void *payload, size_t len);

private:
	int fd_ = -1;
	uint32_t port_id_ = 0;
	uint64_t overflows_ = 0;
	std::vector<uint8_t> buf_;
};

} // namespace rated
