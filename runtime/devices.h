#pragma once
// The host's network devices as the model sees them: one net_device per
// real interface index (name and MAC of the real one), made on first use,
// and transmission of finished frames through an AF_PACKET socket per
// device, as the kernel's dev_queue_xmit would send them.
#include <cstdint>
#include <map>
#include <string>

#include "runtime/fd.h"

struct net_device;
struct sk_buff;

namespace dnshookd {

struct TxCount {
	uint64_t frames = 0;
	uint64_t errors = 0;
};

class Devices {
public:
	Devices();
	~Devices();
	Devices(const Devices &) = delete;
	Devices &operator=(const Devices &) = delete;

	// The model's device for a real interface index; nullptr if the
	// interface does not exist (any more).
	struct net_device *by_index(int ifindex);
	// Sends the frame of skb (link-layer header included) on skb->dev.
	int transmit(const struct sk_buff *skb);
	const std::map<std::string, TxCount> &sent() const { return sent_; }

private:
	std::map<int, struct net_device *> devs_;
	std::map<int, Fd> sockets_; // by interface index
	std::map<std::string, TxCount> sent_;
};

} // namespace dnshookd
