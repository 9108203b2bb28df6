// The simulated router (see router.h).
#include "sim/router.h"

#include <arpa/inet.h>
#include <cstring>
#include <stdexcept>

#include "kmodel/host.h"
#include "linux/ip.h"
#include "linux/ipv6.h"
#include "linux/jiffies.h"
#include "linux/module.h"
#include "linux/netfilter.h"
#include "net/arp.h"
#include "net/ip6_route.h"
#include "net/ipv6.h"
#include "net/ndisc.h"
#include "net/net_namespace.h"
#include "net/netfilter/nf_conntrack.h"
#include "net/route.h"

namespace sim {

const Mac kBr0Mac = {0x02, 0x00, 0x00, 0x00, 0x00, 0x01};
const Mac kBr1Mac = {0x02, 0x00, 0x00, 0x00, 0x00, 0x02};
const Mac kWanMac = {0x02, 0x00, 0x00, 0x00, 0x00, 0x03};
const Mac kClientMac = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55};
const Mac kGatewayMac = {0x00, 0xaa, 0xbb, 0xcc, 0xdd, 0xee};

bool Verdict::accepted() const { return verdict == NF_ACCEPT; }

namespace {

bool is_v6(const Bytes &p) { return !p.empty() && (p[0] >> 4) == 6; }

// Protocol and the two (address, port) ends of a packet; ports are 0 for
// other protocols or when the transport header is cut off.
int packet_ends(const Bytes &p, Bytes &src, Bytes &dst)
{
	size_t off;
	int proto;
	if (is_v6(p)) {
		if (p.size() < 40)
			return -1;
		src.assign(p.begin() + 8, p.begin() + 24);
		dst.assign(p.begin() + 24, p.begin() + 40);
		proto = p[6];
		off = 40;
		while ((proto == 0 || proto == 43 || proto == 60) && off + 2 <= p.size()) {
			int next = p[off];
			off += (p[off + 1] + 1) * 8;
			proto = next;
		}
	} else {
		if (p.size() < 20)
			return -1;
		src.assign(p.begin() + 12, p.begin() + 16);
		dst.assign(p.begin() + 16, p.begin() + 20);
		proto = p[9];
		off = (p[0] & 0xf) * 4;
	}
	uint8_t sport[2] = {0, 0}, dport[2] = {0, 0};
	if ((proto == 6 || proto == 17) && off + 4 <= p.size()) {
		memcpy(sport, &p[off], 2);
		memcpy(dport, &p[off + 2], 2);
	}
	src.insert(src.end(), sport, sport + 2);
	dst.insert(dst.end(), dport, dport + 2);
	return proto;
}

void parse_cidr(const char *cidr, bool &v6, uint8_t addr[16], int &plen)
{
	std::string s = cidr;
	size_t slash = s.find('/');
	std::string a = s.substr(0, slash);
	v6 = a.find(':') != std::string::npos;
	if (inet_pton(v6 ? AF_INET6 : AF_INET, a.c_str(), addr) != 1)
		throw std::invalid_argument(cidr);
	plen = slash == std::string::npos ? (v6 ? 128 : 32) : std::stoi(s.substr(slash + 1));
}

} // namespace

Router::Router()
{
	kmodel_reset();
	br0_ = kmodel_dev_add("br0", kBr0Mac.data());
	br1_ = kmodel_dev_add("br1", kBr1Mac.data());
	wan_ = kmodel_dev_add("eth0", kWanMac.data());
}

Router::~Router() { unload(); }

int Router::load()
{
	int ret = init_module();
	// As insmod: a module whose init failed is never unloaded; what its
	// earlier steps set up stays behind.
	loaded_ = ret == 0;
	return ret;
}

void Router::unload()
{
	if (!loaded_)
		return;
	cleanup_module();
	loaded_ = false;
}

int Router::write_proc(const char *file, const std::string &text)
{
	return kmodel_proc_write_str(file, text);
}

void Router::advance(uint32_t ticks) { kmodel_advance_jiffies(ticks); }
uint32_t Router::now() const { return jiffies; }

struct dst_entry *Router::route(const char *cidr, struct net_device *dev, kmodel_route_out out,
				const Mac *next_hop, struct neighbour *neigh)
{
	bool v6;
	uint8_t addr[16] = {};
	int plen;
	parse_cidr(cidr, v6, addr, plen);
	const uint8_t *ha = next_hop ? next_hop->data() : nullptr;
	if (v6)
		return kmodel_route6_add((const struct in6_addr *)addr, plen, dev, out, ha, neigh);
	__be32 a;
	memcpy(&a, addr, 4);
	return kmodel_route_add(a, plen, dev, out, ha, neigh);
}

struct neighbour *Router::neighbour(const char *addr, struct net_device *dev, const Mac &ha,
				    uint8_t nud_state, uint32_t used)
{
	bool v6;
	uint8_t key[16] = {};
	int plen;
	parse_cidr(addr, v6, key, plen);
	return kmodel_neigh_add(v6 ? &nd_tbl : &arp_tbl, key, dev, ha.data(), nud_state, used);
}

struct nf_conn *Router::conntrack(const Bytes &ip_packet)
{
	Bytes src, dst;
	int proto = packet_ends(ip_packet, src, dst);
	if (proto < 0)
		return nullptr;
	ConnKey key = src < dst ? ConnKey{proto, src, dst} : ConnKey{proto, dst, src};
	auto it = conns_.find(key);
	if (it != conns_.end())
		return it->second;
	struct nf_conn *ct = kmodel_ct_new();
	conns_[key] = ct;
	first_end_[ct] = src;
	return ct;
}

void Router::conntrack_expire_all()
{
	for (auto &c : conns_)
		kmodel_ct_remove(c.second);
	conns_.clear();
	first_end_.clear();
}

Verdict Router::forward(const Bytes &ip_packet, struct net_device *in, struct net_device *out,
			const Mac &src_mac, size_t linear)
{
	return forward_frame(ether(Mac{in->dev_addr[0], in->dev_addr[1], in->dev_addr[2], in->dev_addr[3],
				       in->dev_addr[4], in->dev_addr[5]},
				   src_mac, ip_packet),
			     in, out, linear);
}

Verdict Router::forward_frame(const Bytes &frame, struct net_device *in, struct net_device *out,
			      size_t linear)
{
	Verdict v;
	if (frame.size() < ETH_HLEN)
		throw std::invalid_argument("frame shorter than an Ethernet header");
	Bytes ip(frame.begin() + ETH_HLEN, frame.end());
	bool v6 = is_v6(ip);
	size_t lin = linear > ip.size() ? ip.size() : linear;

	// A driver's receive buffer: NET_SKB_PAD + NET_IP_ALIGN in front, so
	// the IP header behind the Ethernet header is 4-byte aligned; what the
	// frame leaves free is tail room.
	size_t head = ETH_HLEN + lin;
	size_t room = head < KMODEL_RX_BUFFER ? KMODEL_RX_BUFFER - head : 0;
	struct sk_buff *skb = kmodel_skb_build(frame.data(), frame.size(), head, NET_SKB_PAD + NET_IP_ALIGN, 0, room);
	skb_reset_mac_header(skb);
	skb_pull(skb, ETH_HLEN);
	skb->mac_len = ETH_HLEN;
	skb_reset_network_header(skb);
	skb->transport_header = skb->network_header + (v6 ? sizeof(struct ipv6hdr) : (ip.empty() ? 0 : (ip[0] & 0xf) * 4));
	skb->protocol = htons(v6 ? ETH_P_IPV6 : ETH_P_IP);
	skb->dev = in;
	skb->skb_iif = in->ifindex;
	skb->pkt_type = PACKET_HOST;
	if (tracking_) {
		struct nf_conn *ct = conntrack(ip);
		if (ct) {
			Bytes src, dst;
			packet_ends(ip, src, dst);
			bool reply = first_end_[ct] != src;
			int info = reply ? IP_CT_ESTABLISHED + IP_CT_IS_REPLY
					 : (kmodel_ct_refs(ct) > 1 ? IP_CT_ESTABLISHED : IP_CT_NEW);
			kmodel_ct_attach(skb, ct, info);
		}
	}
	int pf = v6 ? PF_INET6 : PF_INET;

	v.hook = NF_INET_PRE_ROUTING;
	v.verdict = kmodel_nf_hook(pf, NF_INET_PRE_ROUTING, skb, in, nullptr);
	if (v.verdict == NF_ACCEPT) {
		// Routing: the packet leaves with the route to its destination.
		struct flowi fl = {};
		if (v6 && ip.size() >= 40) {
			memcpy(&fl.fl6_dst, &ip[24], 16);
			struct dst_entry *dst = ip6_route_output(&init_net, nullptr, &fl);
			if (dst && dst->error)
				dst_release(dst);
			else if (dst)
				skb_dst_set(skb, dst);
		} else if (!v6 && ip.size() >= 20) {
			memcpy(&fl.fl4_dst, &ip[16], 4);
			struct rtable *rt;
			if (ip_route_output_key(&init_net, &rt, &fl) == 0)
				skb_dst_set(skb, &rt->dst);
		}
		v.hook = NF_INET_FORWARD;
		v.verdict = kmodel_nf_hook(pf, NF_INET_FORWARD, skb, in, out);
	}
	switch (v.verdict) {
	case NF_ACCEPT:
		v.packet = kmodel_skb_bytes(skb);
		kfree_skb(skb);
		break;
	case NF_DROP:
		kfree_skb(skb);
		break;
	default: // stolen or queued: the hook owns the buffer now
		break;
	}
	return v;
}

const std::vector<kmodel_tx> &Router::sent() const { return kmodel_tx_log(); }
void Router::clear_sent() { kmodel_tx_clear(); }

} // namespace sim
