// Network devices, Ethernet header building and the transmit capture.
#include <stdlib.h>
#include <vector>

#include "kmodel/live.h"
#include "kmodel/net.h"
#include "kmodel/state.h"
#include "linux/errno.h"
#include "linux/netdevice.h"
#include "net/net_namespace.h"

struct net init_net = {ATOMIC_INIT(1), 0};

namespace {

std::vector<net_device *> g_devs;
std::vector<kmodel_tx> g_tx;
int g_xmit_rc;

} // namespace

int dev_queue_xmit(struct sk_buff *skb)
{
	int rc = g_xmit_rc;

	if (kmodel_xmit_fn host = kmodel_xmit_fn_get()) {
		rc = host(skb);
		kfree_skb(skb);
		return rc;
	}
	if (rc == 0) {
		BUG_ON(skb->dev == NULL);
		kmodel_tx tx;
		tx.dev = skb->dev->name;
		tx.protocol = ntohs(skb->protocol);
		tx.frame = kmodel_skb_bytes(skb);
		g_tx.push_back(std::move(tx));
	}
	kfree_skb(skb);
	return rc;
}

int dev_hard_header(struct sk_buff *skb, struct net_device *dev, unsigned short type,
		    const void *daddr, const void *saddr, unsigned int len)
{
	(void)len;
	struct ethhdr *eth = (struct ethhdr *)skb_push(skb, ETH_HLEN);

	eth->h_proto = htons(type);
	memcpy(eth->h_source, saddr ? saddr : dev->dev_addr, ETH_ALEN);
	if (daddr) {
		memcpy(eth->h_dest, daddr, ETH_ALEN);
		return ETH_HLEN;
	}
	return -ETH_HLEN;
}

struct net_device *dev_get_by_name(struct net *net, const char *name)
{
	(void)net;
	struct net_device *dev = kmodel_dev_find(name);

	if (dev)
		dev_hold(dev);
	return dev;
}

void dev_hold(struct net_device *dev) { atomic_inc(&dev->refcnt); }
void dev_put(struct net_device *dev) { atomic_dec(&dev->refcnt); }

struct net_device *kmodel_dev_add(const char *name, const uint8_t mac[6])
{
	struct net_device *dev = (struct net_device *)calloc(1, sizeof(*dev));

	BUG_ON(dev == NULL || strlen(name) >= IFNAMSIZ);
	strcpy(dev->name, name);
	dev->ifindex = (int)g_devs.size() + 1;
	dev->flags = IFF_UP | IFF_BROADCAST;
	dev->mtu = ETH_DATA_LEN;
	dev->type = ARPHRD_ETHER;
	dev->hard_header_len = ETH_HLEN;
	dev->addr_len = ETH_ALEN;
	memcpy(dev->perm_addr, mac, ETH_ALEN);
	memset(dev->broadcast, 0xff, ETH_ALEN);
	dev->dev_addr = dev->perm_addr;
	dev->nd_net = &init_net;
	g_devs.push_back(dev);
	return dev;
}

struct net_device *kmodel_dev_find(const char *name)
{
	for (net_device *dev : g_devs)
		if (strcmp(dev->name, name) == 0)
			return dev;
	return NULL;
}

const std::vector<kmodel_tx> &kmodel_tx_log(void) { return g_tx; }
void kmodel_tx_clear(void) { g_tx.clear(); }
void kmodel_set_xmit_result(int rc) { g_xmit_rc = rc; }

void kmodel_netdev_reset(void)
{
	for (net_device *dev : g_devs)
		free(dev);
	g_devs.clear();
	g_tx.clear();
	g_xmit_rc = 0;
}
