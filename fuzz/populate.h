#pragma once
// Brings the simulated router's filter to a state where every table holds
// records that wait for the daemon: HTTP connections over IPv4 and IPv6
// with held request copies, and flows to addresses learnt from DNS answers
// (port 443 and another port, both families). Shared by the fuzzers that
// feed the daemon's side.
#include <arpa/inet.h>

#include <cstring>
#include <string>
#include <vector>

#include "sim/netlink_peer.h"
#include "sim/packet.h"
#include "sim/router.h"

namespace fuzz {

using sim::Bytes;

inline const char kClient[] = "192.168.1.10", kResolver[] = "8.8.8.8";
inline const char kServer[] = "93.184.216.34", kFlow[] = "93.184.216.50";
inline const char kClient6[] = "2001:db8:1::10", kServer6[] = "2001:db8:2::80", kFlow6[] = "2001:db8:2::50";

inline Bytes l4(bool udp, const char *src, const char *dst, uint16_t sport, uint16_t dport, uint8_t flags,
		uint32_t seq, uint32_t ack, const std::string &payload)
{
	sim::Tcp t;
	t.sport = sport;
	t.dport = dport;
	t.flags = flags;
	t.seq = seq;
	t.ack = ack;
	t.payload.assign(payload.begin(), payload.end());
	return sim::l4_packet(udp, src, dst, t);
}

inline void put16(std::string &b, uint16_t v)
{
	b.push_back(char(v >> 8));
	b.push_back(char(v));
}

// A response (id 7, RD RA) for `name` with one A and one AAAA record.
inline std::string dns_answer(const std::string &name, const char *v4, const char *v6, bool response)
{
	std::string b;
	for (uint16_t v : {uint16_t(7), uint16_t(response ? 0x8180 : 0x0100), uint16_t(1),
			   uint16_t(response ? 2 : 0), uint16_t(0), uint16_t(0)})
		put16(b, v);
	for (size_t start = 0, dot; start <= name.size(); start = dot + 1) {
		dot = std::min(name.find('.', start), name.size());
		b.push_back(char(dot - start));
		b.append(name, start, dot - start);
	}
	b.push_back(0);
	put16(b, 1);
	put16(b, 1);
	if (!response)
		return b;
	uint8_t a4[4], a6[16];
	inet_pton(AF_INET, v4, a4);
	inet_pton(AF_INET6, v6, a6);
	for (int i = 0; i < 2; i++) {
		for (uint16_t v : {uint16_t(0xc00c), uint16_t(i ? 28 : 1), uint16_t(1), uint16_t(0), uint16_t(300),
				   uint16_t(i ? 16 : 4)})
			put16(b, v);
		b.append((const char *)(i ? a6 : a4), i ? 16 : 4);
	}
	return b;
}

// Routes of the LAN and the WAN, both families; the filter loaded with
// the services of `mode` (bit 0 WP, bit 1 PC). False when the load fails.
inline bool boot(sim::Router &r, int mode)
{
	r.route("192.168.1.0/24", r.br0(), KMODEL_OUT_HH, &sim::kClientMac);
	r.route("93.184.216.0/24", r.wan(), KMODEL_OUT_HH, &sim::kGatewayMac);
	r.route("8.8.8.0/24", r.wan(), KMODEL_OUT_HH, &sim::kGatewayMac);
	r.route("2001:db8:1::/64", r.br0(), KMODEL_OUT_HH, &sim::kClientMac);
	r.route("2001:db8:2::/64", r.wan(), KMODEL_OUT_HH, &sim::kGatewayMac);
	if (r.load() != 0)
		return false;
	r.write_proc("wl_warning_page", (mode & 1) ? "1\n" : "0\n");
	r.write_proc("pcg_proc", (mode & 2) ? "1\n" : "0\n");
	return true;
}

// Opens the connections and flows; the requests they cause are left in
// the peer's queue.
inline void populate(sim::Router &r)
{
	const char *clients[] = {kClient, kClient6}, *servers[] = {kServer, kServer6};
	const char *flows[] = {kFlow, kFlow6};
	for (int v6 = 0; v6 < 2; v6++) {
		const char *c = clients[v6], *s = servers[v6];
		auto up = [&](const Bytes &p) { r.forward(p, r.br0(), r.wan()); };
		auto down = [&](const Bytes &p) { r.forward(p, r.wan(), r.br0(), sim::kGatewayMac); };
		up(l4(false, c, s, 40000, 80, sim::SYN, 100, 0, ""));
		down(l4(false, s, c, 80, 40000, sim::SYN | sim::ACK, 500, 101, ""));
		up(l4(false, c, s, 40000, 80, sim::ACK, 101, 501, ""));
		up(l4(false, c, s, 40000, 80, sim::PSH | sim::ACK, 101, 501,
		      "GET /page HTTP/1.1\r\nHost: blocked.example\r\n\r\n"));
		// Flows to an address the resolver gave out.
		std::string q = dns_answer("flow.example", kFlow, kFlow6, false);
		up(l4(true, kClient, kResolver, 40001, 53, 0, 0, 0, q));
		down(l4(true, kResolver, kClient, 53, 40001, 0, 0, 0, dns_answer("flow.example", kFlow, kFlow6, true)));
		for (uint16_t port : {443, 8443}) {
			up(l4(false, c, flows[v6], 41000, port, sim::SYN, 1, 0, ""));
			up(l4(false, c, flows[v6], 41000, port, sim::ACK, 2, 1, "\x16\x03\x01"));
		}
	}
}

} // namespace fuzz
