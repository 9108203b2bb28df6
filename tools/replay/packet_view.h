#pragma once
// A reading of an IP packet for people: addresses, ports, TCP flags and
// sequence numbers, payload. Tolerates packets cut anywhere; what is not
// there stays empty.
#include <cstddef>
#include <cstdint>
#include <string>

namespace replay {

struct PacketView {
	bool v6 = false;
	std::string src, dst;    // address text
	const uint8_t *src_addr = nullptr, *dst_addr = nullptr; // 4 or 16 bytes, inside the packet
	int proto = -1;          // -1: the IP header is cut
	bool has_ports = false;
	uint16_t sport = 0, dport = 0;
	bool has_tcp = false;    // the whole fixed TCP header is there
	uint8_t flags = 0;
	uint32_t seq = 0, ack = 0;
	std::string payload;     // the transport payload as captured

	std::string proto_name() const; // "TCP", "UDP", "ICMPv6", "proto 47"
	std::string flag_text() const;  // "SYN,ACK"; "" for no flags
	std::string ends() const;       // "192.168.1.10:40000 -> 93.184.216.34:80"
};

PacketView view_packet(const uint8_t *ip, size_t len);

// What a packet the filter forged is: "redirect", "reset", "fin-ack",
// "ack", "held copy" (a client's request replayed) or "other".
std::string forged_kind(const PacketView &v);
// The Location value of a redirect; "" when there is none.
std::string redirect_location(const PacketView &v);

} // namespace replay
