// libFuzzer target for the whole filter: packets of a few connections
// through PRE_ROUTING and FORWARD of the simulated router, with both
// services on, the per-device lists filled, and the daemon answering
// whatever was asked. Every header the hooks read comes from the input,
// so any read outside a packet, double free or use after free shows up
// under the sanitizers.
//
// Input: a list of records. Each record is
//   ctl   bit 0 IPv6, bits 1-2 TCP / UDP / raw IP bytes, bit 3 from the
//         server, bit 4 via br1, bit 5 the daemon answers afterwards,
//         bits 6-7 how much of the packet is linear
//   port  selects the server port (53, 80, 443, 5222 or the byte itself);
//         bit 5 sends a client's packet from the exempted device
//   flags TCP flags (or the reply's verdict when bit 5 is set)
//   n     payload length, then n payload bytes (raw IP: the whole packet)
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "core/rating.h"
#include "kmodel/host.h"
#include "kmodel/net.h"
#include "sim/netlink_peer.h"
#include "sim/packet.h"
#include "sim/router.h"


namespace {

const char *const kClients4[] = { "192.168.1.10", "192.168.2.20" };
const char *const kServers4[] = { "93.184.216.34", "203.0.113.10" };
const char *const kClients6[] = { "2001:db8:1::10", "2001:db8:1::20" };
const char *const kServers6[] = { "2001:db8:2::34", "2001:db8:2::35" };

void setup(sim::Router &r)
{
	r.route("192.168.1.0/24", r.br0(), KMODEL_OUT_HH, &sim::kClientMac);
	struct neighbour *n = r.neighbour("192.168.2.20", r.br1(), sim::kClientMac, 0x02, 0);
	r.route("192.168.2.0/24", r.br1(), KMODEL_OUT_NEIGH, nullptr, n);
	r.route("0.0.0.0/0", r.wan(), KMODEL_OUT_HH, &sim::kGatewayMac);
	r.route("2001:db8:1::/64", r.br0(), KMODEL_OUT_HH, &sim::kClientMac);
	r.route("::/0", r.wan(), KMODEL_OUT_NONE);
	r.neighbour("192.168.1.10", r.br0(), sim::kClientMac, 0x02, 0);
	r.neighbour("2001:db8:1::10", r.br0(), sim::kClientMac, 0x02, 0);
	r.write_proc("wl_warning_page", "1");
	r.write_proc("pcg_proc", "1");
	r.write_proc("tblock_proc", "add 00:11:22:33:44:55");
	r.write_proc("unblock_proc", "+|00:11:22:33:44:66");
}

// The daemon answers every request it has read with the given verdict.
void answer(sim::NetlinkPeer &daemon, uint8_t verdict)
{
	for (auto &p : daemon.read_payloads()) {
		struct rating_reply rep;
		memset(&rep, 0, sizeof(rep));
		memcpy(&rep, p.data(), p.size() < offsetof(struct rating_reply, verdict) ? p.size()
											: offsetof(struct rating_reply, verdict));
		rep.kind = RATING_KIND_REPLY;
		rep.service = (verdict & 0x80) ? verdict : rep.service + 1;
		rep.verdict = verdict % 4;
		strcpy(rep.redirect_url, "http://block.example/");
		daemon.send(0, &rep, sizeof(rep));
	}
}

sim::Bytes packet(uint8_t ctl, uint8_t port_sel, uint8_t flags, const uint8_t *data, size_t n)
{
	static const uint16_t ports[] = { 53, 80, 443, 5222 };
	bool v6 = ctl & 1, from_server = ctl & 8;
	int kind = (ctl >> 1) & 3;
	uint16_t port = port_sel < 4 ? ports[port_sel] : port_sel;
	sim::Bytes payload(data, data + n);

	if (kind == 3)
		return payload;
	int who = (port_sel >> 4) & 1;
	uint16_t cport = 40000 + (port_sel & 3);
	sim::Tcp t;
	sim::Udp u;
	t.flags = flags;
	t.payload = payload;
	u.payload = payload;
	t.sport = u.sport = from_server ? port : cport;
	t.dport = u.dport = from_server ? cport : port;
	if (v6) {
		sim::Ip6 ip;
		ip.src = sim::ip6(from_server ? kServers6[who] : kClients6[who]);
		ip.dst = sim::ip6(from_server ? kClients6[who] : kServers6[who]);
		return kind == 1 ? sim::ip6_udp(ip, u) : sim::ip6_tcp(ip, t);
	}
	sim::Ip4 ip;
	ip.src = sim::ip4(from_server ? kServers4[who] : kClients4[who]);
	ip.dst = sim::ip4(from_server ? kClients4[who] : kServers4[who]);
	return kind == 1 ? sim::ip4_udp(ip, u) : sim::ip4_tcp(ip, t);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	sim::Router r;
	sim::NetlinkPeer daemon;
	if (r.load() != 0)
		return 0;
	setup(r);

	size_t pos = 0;
	while (pos + 4 <= size) {
		uint8_t ctl = data[pos], port = data[pos + 1], flags = data[pos + 2];
		size_t n = data[pos + 3];
		pos += 4;
		if (n > size - pos)
			n = size - pos;
		sim::Bytes ip = packet(ctl, port, flags, data + pos, n);
		pos += n;
		if (ip.empty())
			continue;
		size_t linear = (ctl >> 6) == 0 ? ip.size() : (size_t)((ctl >> 6) * 20);
		bool from_server = ctl & 8;
		struct net_device *lan = (ctl & 0x10) ? r.br1() : r.br0();
		// Bit 5 of the port byte sends from the exempted device.
		static const sim::Mac exempted = {0x00, 0x11, 0x22, 0x33, 0x44, 0x66};
		const sim::Mac &src = from_server ? sim::kGatewayMac : (port & 0x20) ? exempted : sim::kClientMac;
		r.forward(ip, from_server ? r.wan() : lan, from_server ? lan : r.wan(), src, linear);
		if (ctl & 0x20)
			answer(daemon, flags);
		r.advance(flags * 1000u);
	}
	r.unload();
	kmodel_free_all();
	return 0;
}
