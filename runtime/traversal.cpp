// A queued packet through the model's hooks (see traversal.h).
#include "runtime/traversal.h"

#include <cstring>
#include <vector>

#include "runtime/conntrack.h"
#include "runtime/devices.h"
#include "runtime/rtnl.h"

#include "kmodel/host.h"
#include "kmodel/net.h"
#include "linux/if_ether.h"
#include "linux/ip.h"
#include "linux/ipv6.h"
#include "linux/netdevice.h"
#include "linux/netfilter.h"
#include "linux/skbuff.h"
#include "net/dst.h"
#include "net/netfilter/nf_conntrack.h"

namespace dnshookd {

namespace {

bool is_v6(QueuePoint p) { return p == Q_PRE6 || p == Q_FWD6; }

// The frame a driver received: to the input device, from the sender.
std::vector<uint8_t> frame_of(const QueuedPacket &p, const struct net_device *in)
{
	std::vector<uint8_t> frame(ETH_HLEN + p.len);
	memcpy(frame.data(), in->dev_addr, ETH_ALEN);
	memcpy(frame.data() + ETH_ALEN, p.hwaddr, ETH_ALEN);
	uint16_t proto = htons(is_v6(p.point) ? ETH_P_IPV6 : ETH_P_IP);
	memcpy(frame.data() + 2 * ETH_ALEN, &proto, 2);
	memcpy(frame.data() + ETH_HLEN, p.data, p.len);
	return frame;
}

struct sk_buff *received_skb(const QueuedPacket &p, struct net_device *in)
{
	std::vector<uint8_t> frame = frame_of(p, in);
	size_t room = frame.size() < KMODEL_RX_BUFFER ? KMODEL_RX_BUFFER - frame.size() : 0;
	struct sk_buff *skb = kmodel_skb_build(frame.data(), frame.size(), frame.size(),
					       NET_SKB_PAD + NET_IP_ALIGN, 0, room);
	skb_reset_mac_header(skb);
	skb_pull(skb, ETH_HLEN);
	skb->mac_len = ETH_HLEN;
	skb_reset_network_header(skb);
	size_t ihl = is_v6(p.point) ? sizeof(struct ipv6hdr) : (p.len ? (size_t)(p.data[0] & 0xf) * 4 : 0);
	skb->transport_header = skb->network_header + ihl;
	skb->protocol = htons(is_v6(p.point) ? ETH_P_IPV6 : ETH_P_IP);
	skb->dev = in;
	skb->skb_iif = in->ifindex;
	skb->pkt_type = PACKET_HOST;
	return skb;
}

} // namespace

unsigned Traversal::run(const QueuedPacket &p)
{
	PointCount &count = count_[p.point];
	count.packets++;
	bool v6 = is_v6(p.point);
	bool forward = p.point == Q_FWD4 || p.point == Q_FWD6;
	struct net_device *in = devs_.by_index(p.in_ifindex);
	struct net_device *out = forward ? devs_.by_index(p.out_ifindex) : nullptr;
	if (!in || (forward && !out) || p.len < (v6 ? 40u : 20u)) {
		count.accepted++;
		return NF_ACCEPT;
	}
	struct sk_buff *skb = received_skb(p, in);
	int ctinfo = IP_CT_NEW;
	if (struct nf_conn *ct = ct_.of_packet(p.data, p.len, ctinfo))
		kmodel_ct_attach(skb, ct, ctinfo);
	if (forward) {
		// At FORWARD the packet carries the route to its destination.
		const uint8_t *daddr = v6 ? p.data + offsetof(struct ipv6hdr, daddr)
					  : p.data + offsetof(struct iphdr, daddr);
		if (struct dst_entry *dst = rtnl_.route(v6 ? AF_INET6 : AF_INET, daddr))
			skb_dst_set(skb, dst);
	}
	unsigned pf = v6 ? PF_INET6 : PF_INET;
	unsigned hook = forward ? NF_INET_FORWARD : NF_INET_PRE_ROUTING;
	unsigned v = kmodel_nf_hook((int)pf, hook, skb, in, out);
	if (v == NF_ACCEPT || v == NF_DROP)
		kfree_skb(skb);
	// The filter never steals or queues; anything else would own the buffer.
	if (v == NF_DROP) {
		count.dropped++;
		return NF_DROP;
	}
	count.accepted++;
	return NF_ACCEPT;
}

} // namespace dnshookd
