#pragma once
// NFQUEUE: four queues (PRE_ROUTING and FORWARD, IPv4 and IPv6) on one
// netlink socket. Each queued packet is handed to a handler with what the
// queue says about it, and the handler's verdict is sent back.
#include <cstddef>
#include <cstdint>
#include <functional>

struct mnl_socket;
struct nlmsghdr;

namespace dnshookd {

enum QueuePoint { Q_PRE4, Q_PRE6, Q_FWD4, Q_FWD6, Q_COUNT };

struct QueuedPacket {
	QueuePoint point;
	const uint8_t *data = nullptr; // the IP packet
	size_t len = 0;
	int in_ifindex = 0, out_ifindex = 0;
	bool has_hwaddr = false;
	uint8_t hwaddr[6] = {};        // the frame's source address
};

class Queue {
public:
	using Handler = std::function<unsigned(const QueuedPacket &)>; // NF_ACCEPT / NF_DROP

	Queue(unsigned base, bool fail_open, Handler handler);
	~Queue();
	Queue(const Queue &) = delete;
	Queue &operator=(const Queue &) = delete;

	int fd(void) const;
	void on_readable(void);
	unsigned number(QueuePoint p) const { return base_ + (unsigned)p; }

private:
	void configure(unsigned queue, uint16_t pf, bool fail_open);
	int on_message(const struct nlmsghdr *nlh);
	void verdict(unsigned queue, uint32_t id, unsigned v);

	struct mnl_socket *nl_ = nullptr;
	unsigned portid_ = 0;
	unsigned base_;
	Handler handler_;
};

} // namespace dnshookd
