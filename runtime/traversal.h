#pragma once
// A queued packet taken through the model's hooks for its point and
// family: a received buffer as a driver would leave it (the Ethernet
// header in front of the data, from the queue's hardware address), its
// devices, its connection and, at FORWARD, its route.
#include <cstdint>

#include "runtime/queue.h"

namespace dnshookd {

class Conntrack;
class Devices;
class Rtnl;

struct PointCount {
	uint64_t packets = 0, accepted = 0, dropped = 0;
};

class Traversal {
public:
	Traversal(Devices &devs, Rtnl &rtnl, Conntrack &ct) : devs_(devs), rtnl_(rtnl), ct_(ct) {}
	unsigned run(const QueuedPacket &p);
	const PointCount &count(QueuePoint p) const { return count_[p]; }

private:
	Devices &devs_;
	Rtnl &rtnl_;
	Conntrack &ct_;
	PointCount count_[Q_COUNT];
};

} // namespace dnshookd
