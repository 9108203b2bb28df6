#pragma once
// One TCP conversation between a client and a server, over IPv4 or IPv6:
// each side's sequence number moves with what it sends (its payload, and
// one for a SYN or a FIN), and its acknowledgement follows the other side.
#include <cstdint>
#include <string>

#include "sim/packet.h"

namespace sim {

struct Conversation {
	bool v6 = false;
	uint32_t client = 0, server = 0; // IPv4, from ip4()
	Addr6 client6{}, server6{};
	uint16_t cport = 40000, sport = 80;
	uint32_t cseq = 1000, sseq = 5000;

	// A segment between the two ends with the numbers, flags and payload
	// of `tcp` (its ports are the conversation's); over IPv4 the header's
	// other fields come from `ip`. Nothing moves.
	Bytes segment(bool from_client, Tcp tcp, Ip4 ip = {}) const;
	// The next segment of one side.
	Bytes packet(bool from_client, uint8_t flags, const std::string &payload = "");
	Bytes up(uint8_t flags, const std::string &payload = "") { return packet(true, flags, payload); }
	Bytes down(uint8_t flags, const std::string &payload = "") { return packet(false, flags, payload); }
};

} // namespace sim
