#pragma once
// The simulated router: a deterministic host for the filter. It boots a
// fresh kernel model with two LAN bridges (br0, br1) and a WAN device
// (eth0), keeps one conntrack entry per connection (both directions),
// installs routes and neighbour entries on request, and takes packets
// through PRE_ROUTING and FORWARD as the kernel would.
#include <cstdint>
#include <map>
#include <string>
#include <tuple>
#include <vector>

#include "kmodel/net.h"
#include "sim/packet.h"

struct nf_conn;

namespace sim {

extern const Mac kBr0Mac, kBr1Mac, kWanMac; // the router's own ports
extern const Mac kClientMac;                 // default sender on the LAN
extern const Mac kGatewayMac;                // the upstream next hop

struct Verdict {
	unsigned verdict = 0;      // NF_ACCEPT, NF_DROP, ...
	unsigned hook = 0;         // the hook point that decided
	Bytes packet;              // the IP packet as accepted (FORWARD passed)
	bool accepted() const;
};

class Router {
public:
	Router();
	~Router();
	Router(const Router &) = delete;
	Router &operator=(const Router &) = delete;

	int load();    // init_module's result
	void unload(); // cleanup_module, if loaded
	bool loaded() const { return loaded_; }

	// A user's write into /proc/<file>: the handler's result.
	int write_proc(const char *file, const std::string &text);

	struct net_device *br0() const { return br0_; }
	struct net_device *br1() const { return br1_; }
	struct net_device *wan() const { return wan_; }

	// The clock.
	void advance(uint32_t ticks);
	uint32_t now() const;

	// Routes: "10.0.0.0/8", "2001:db8::/32" (no prefix: a host route).
	// KMODEL_OUT_HH needs the next hop's MAC, KMODEL_OUT_NEIGH a neighbour.
	struct dst_entry *route(const char *cidr, struct net_device *dev, kmodel_route_out out,
				const Mac *next_hop = nullptr, struct neighbour *neigh = nullptr);
	// Neighbour entries in arp_tbl / nd_tbl (address text decides).
	struct neighbour *neighbour(const char *addr, struct net_device *dev, const Mac &ha,
				    uint8_t nud_state, uint32_t used);

	// The conntrack entry of the packet's connection, made on first use.
	struct nf_conn *conntrack(const Bytes &ip_packet);
	// Every connection's entry times out (the table drops its reference).
	void conntrack_expire_all();

	// Takes an IP packet that arrives on `in` from src_mac and is to leave
	// by `out` through PRE_ROUTING then FORWARD. The first `linear` bytes
	// of the IP packet are in the linear area, the rest in fragments.
	Verdict forward(const Bytes &ip_packet, struct net_device *in, struct net_device *out,
			const Mac &src_mac = kClientMac, size_t linear = SIZE_MAX);
	// The same for a whole Ethernet frame.
	Verdict forward_frame(const Bytes &frame, struct net_device *in, struct net_device *out,
			      size_t linear = SIZE_MAX);
	// Whether forwarded packets get a conntrack entry (default on).
	void set_tracking(bool on) { tracking_ = on; }

	// Frames the kernel transmitted (forged packets), oldest first.
	const std::vector<kmodel_tx> &sent() const;
	void clear_sent();

private:
	bool loaded_ = false;
	bool tracking_ = true;
	struct net_device *br0_, *br1_, *wan_;
	using ConnKey = std::tuple<int, Bytes, Bytes>; // protocol, lower end, higher end
	std::map<ConnKey, struct nf_conn *> conns_;
	std::map<struct nf_conn *, Bytes> first_end_; // original direction's source end
};

} // namespace sim
