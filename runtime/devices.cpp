// The model's devices and their transmission (see devices.h).
#include "runtime/devices.h"

#include <vector>

#include "kmodel/live.h"
#include "kmodel/net.h"
#include "linux/errno.h"
#include "linux/netdevice.h"
#include "runtime/netif.h"

namespace dnshookd {

namespace {
Devices *g_devices;

int xmit_hook(const struct sk_buff *skb) { return g_devices->transmit(skb); }
} // namespace

Devices::Devices()
{
	g_devices = this;
	kmodel_set_xmit_fn(xmit_hook);
}

Devices::~Devices()
{
	kmodel_set_xmit_fn(nullptr);
	g_devices = nullptr;
}

struct net_device *Devices::by_index(int ifindex)
{
	auto it = devs_.find(ifindex);
	if (it != devs_.end())
		return it->second;
	std::string name = netif_name(ifindex);
	if (name.empty() || name.size() >= IFNAMSIZ)
		return nullptr;
	uint8_t mac[6] = {};
	netif_mac(name, mac); // devices without one (tunnels) keep zeros
	struct net_device *dev = kmodel_dev_find(name.c_str());
	if (!dev)
		dev = kmodel_dev_add(name.c_str(), mac);
	dev->ifindex = ifindex;
	devs_[ifindex] = dev;
	return dev;
}

int Devices::transmit(const struct sk_buff *skb)
{
	const struct net_device *dev = skb->dev;
	TxCount &count = sent_[dev->name];
	auto it = sockets_.find(dev->ifindex);
	if (it == sockets_.end()) {
		Fd s = netif_packet_socket();
		if (!s) {
			count.errors++;
			return -ENOBUFS;
		}
		it = sockets_.emplace(dev->ifindex, std::move(s)).first;
	}
	std::vector<uint8_t> frame = kmodel_skb_bytes(skb);
	int rc = netif_send(it->second, dev->ifindex, skb->protocol, frame.data(), frame.size());
	if (rc < 0)
		count.errors++;
	else
		count.frames++;
	return rc;
}

} // namespace dnshookd
