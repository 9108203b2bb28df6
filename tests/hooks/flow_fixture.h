#pragma once
// The simulated router with the filter loaded and a scripted rating
// daemon, plus what the DNS and flow hook tests share: a small DNS message
// writer, a reader for the frames of the captured DNS traffic, the
// expected bytes of a rating request (written from the wire layout, not
// from the filter's structs) and views of the flow tables.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "kmodel/host.h"
#include "kmodel/net.h"
#include "sim/netlink_peer.h"
#include "sim/router.h"

namespace flows {

using sim::Bytes;
using Lines = std::vector<std::string>;

// ---- DNS messages ----
// A standard query (RD set) for name with the given type and class.
Bytes dns_query(uint16_t id, const std::string &name, uint16_t qtype = 1, uint16_t qclass = 1);
// A response with one A record per v4 address and one AAAA per v6 address,
// owners compressed to the question name.
Bytes dns_response(uint16_t id, const std::string &name, const std::vector<const char *> &v4,
		   const std::vector<const char *> &v6 = {});

// ---- the captured traffic (tests/data/dns.pcap: dig and wget against
// dnsmasq; client 10.53.0.2 / fd00:53::2, server 10.53.0.1 / fd00:53::1) ----
// Whole Ethernet frames, frame n at index n - 1.
const std::vector<Bytes> &dns_capture();

// ---- rating requests ----
struct Expected {
	uint32_t service;
	uint16_t family;       // 0: not filled
	Bytes src, dst;        // 4 or 16 bytes; empty: all zero
	std::string url, host;
	sim::Mac mac{};        // all zero: not filled
};
// The 576 bytes the filter should send: the filled fields at their wire
// offsets, every other byte zero.
Bytes expected_request(const Expected &e);
Bytes addr4(const char *dotted);
Bytes addr6(const char *text);
// What the daemon answers: the request's bytes 8..47 echoed, kind 1, the
// service plus one, the verdict, an empty redirect.
Bytes reply_for(const Bytes &request, uint32_t verdict);

// ---- the tables ----
struct PctView {
	std::string addr; // dotted or IPv6 text
	std::string host;
	int state, keep;
};
// Records in use, least recently refreshed first.
std::vector<PctView> pct_records();
std::vector<PctView> pct6_records();
struct SslView {
	std::string client, server, host;
	int state, trust;
};
std::vector<SslView> ssl_records();
std::vector<SslView> ssl6_records();
// Names in the DNS cache with their client, newest query first per bucket
// walk order of the age list (oldest first).
struct DnsView {
	std::string name, client;
	int state;
	int addrs; // slots with a family
};
std::vector<DnsView> dns_records();

// ---- the router ----
class FlowTest : public ::testing::Test {
protected:
	void SetUp() override;
	void TearDown() override;

	// Switches a service through its /proc file.
	void wp(bool on);
	void pc(bool on);

	// A packet from the LAN (br0 by default) out to the WAN, and back.
	sim::Verdict out(const Bytes &ip, const sim::Mac &src = sim::kClientMac);
	sim::Verdict in(const Bytes &ip);
	sim::Verdict frame(const Bytes &f, bool from_lan);

	// Requests the daemon received since the last call.
	std::vector<Bytes> requests();
	// The daemon answers one request.
	void answer(const Bytes &request, uint32_t verdict);

	sim::Router router;
	sim::NetlinkPeer daemon;
};

// Clients and servers used throughout.
extern const char *const kClient, *const kClient2, *const kResolver, *const kServer;
extern const sim::Mac kClient2Mac;

Bytes udp4(const char *src, const char *dst, uint16_t sport, uint16_t dport, const Bytes &payload);
Bytes tcp4(const char *src, const char *dst, uint16_t sport, uint16_t dport, uint8_t flags = 0x10,
	   const Bytes &payload = {});
Bytes udp6(const char *src, const char *dst, uint16_t sport, uint16_t dport, const Bytes &payload);
Bytes tcp6(const char *src, const char *dst, uint16_t sport, uint16_t dport, uint8_t flags = 0x10);

} // namespace flows
