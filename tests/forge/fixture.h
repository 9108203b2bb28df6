#pragma once
// A router with a LAN client behind br0 and a server behind the WAN, both
// reached through a link-layer header cache, and received segments built
// as the forward hook sees them. Every test ends with no socket buffer
// left alive: forged packets are consumed, received ones freed here.
#include <gtest/gtest.h>

#include <string>
#include <type_traits>
#include <vector>

#include "kmodel/host.h"
#include "kmodel/net.h"
#include "linux/skbuff.h"
#include "net/netfilter/nf_conntrack.h"
#include "sim/packet.h"
#include "sim/router.h"

namespace forge_test {

using sim::Bytes;
using Lines = std::vector<std::string>;

inline const uint32_t kClient = sim::ip4("192.168.1.10");
inline const uint32_t kServer = sim::ip4("93.184.216.34");
inline const sim::Addr6 kClient6 = sim::ip6("2001:db8:1::10");
inline const sim::Addr6 kServer6 = sim::ip6("2001:db8:2::80");

class Forge : public ::testing::Test {
protected:
	void SetUp() override
	{
		r.route("192.168.1.0/24", r.br0(), KMODEL_OUT_HH, &sim::kClientMac);
		r.route("93.184.216.0/24", r.wan(), KMODEL_OUT_HH, &sim::kGatewayMac);
		r.route("2001:db8:1::/64", r.br0(), KMODEL_OUT_HH, &sim::kClientMac);
		r.route("2001:db8:2::/64", r.wan(), KMODEL_OUT_HH, &sim::kGatewayMac);
		kmodel_log_clear();
	}

	void TearDown() override
	{
		for (auto *skb : held)
			kfree_skb(skb);
		EXPECT_EQ(0, kmodel_skb_stats_get().live) << "a socket buffer leaked";
	}

	// A received packet as the forward hook gets it: network header at
	// the data, the first `linear` bytes linear, a conntrack entry.
	struct sk_buff *rx(const Bytes &ip, size_t linear = SIZE_MAX)
	{
		size_t lin = linear < ip.size() ? linear : ip.size();
		struct sk_buff *skb = kmodel_skb_build(ip.data(), ip.size(), lin, 64, 0,
						       lin < KMODEL_RX_BUFFER ? KMODEL_RX_BUFFER - lin : 0);
		skb->protocol = htons((ip[0] >> 4) == 6 ? 0x86DD : 0x0800);
		skb->dev = r.br0();
		ct = r.conntrack(ip);
		if (ct)
			kmodel_ct_attach(skb, ct, 0);
		held.push_back(skb);
		return skb;
	}

	// The IP packets transmitted so far (Ethernet header stripped).
	std::vector<Bytes> sent_ip() const
	{
		std::vector<Bytes> out;
		for (const auto &tx : r.sent())
			out.emplace_back(tx.frame.begin() + 14, tx.frame.end());
		return out;
	}

	sim::Router r;
	struct nf_conn *ct = nullptr;
	std::vector<struct sk_buff *> held;
};

// A client request segment and the server segment of the same connection.
inline sim::Tcp request(size_t payload, uint8_t flags = sim::ACK | sim::PSH)
{
	sim::Tcp t;
	t.sport = 40000;
	t.dport = 80;
	t.seq = 0xfffffff0; // the acknowledgement wraps
	t.ack = 0x11223344;
	t.flags = flags;
	t.window = 502;
	t.urg_ptr = 7;
	t.options = {1, 1, 8, 10, 0, 0, 0, 1, 0, 0, 0, 2}; // NOP NOP timestamps
	t.payload.assign(payload, 'a');
	return t;
}

// The received headers carry what the forged ones must not keep: a TTL or
// hop limit of their own, no DF, an identification, TOS bits outside the
// route's mask.
inline sim::Ip4 client_ip(Bytes options = {})
{
	sim::Ip4 ip;
	ip.src = kClient;
	ip.dst = kServer;
	ip.tos = 0x13;
	ip.ttl = 30, ip.frag = 0, ip.id = 0x4321;
	ip.options = options;
	return ip;
}

inline sim::Ip6 client_ip6(std::vector<sim::Ext6> ext = {})
{
	sim::Ip6 ip;
	ip.src = kClient6;
	ip.dst = kServer6;
	ip.traffic_class = 0x20;
	ip.flow_label = 0x12345;
	ip.hop_limit = 9;
	ip.ext = ext;
	return ip;
}

// What a reverse rebuild of (ip, t) must look like: ends swapped, TTL 255,
// identification 0 and DF over IPv4 (hop limit 64 over IPv6), the window
// kept, no options.
template <typename Ip> Bytes reply(Ip ip, const sim::Tcp &t, uint8_t flags, uint32_t ack)
{
	std::swap(ip.src, ip.dst);
	sim::Tcp o;
	o.sport = t.dport, o.dport = t.sport, o.seq = t.ack, o.ack = ack;
	o.flags = flags, o.window = t.window, o.urg_ptr = 0;
	if constexpr (std::is_same_v<Ip, sim::Ip6>) {
		ip.hop_limit = 64;
		return sim::ip6_tcp(ip, o);
	} else {
		ip.ttl = 255, ip.id = 0, ip.frag = 0x4000;
		return sim::ip4_tcp(ip, o);
	}
}
inline Bytes reply4(const sim::Ip4 &ip, const sim::Tcp &t, uint8_t flags, uint32_t ack) { return reply(ip, t, flags, ack); }
inline Bytes reply6(const sim::Ip6 &ip, const sim::Tcp &t, uint8_t flags, uint32_t ack) { return reply(ip, t, flags, ack); }

} // namespace forge_test
