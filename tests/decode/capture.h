#pragma once
// The UDP and TCP payloads of a classic pcap file of Ethernet frames (what
// tcpdump writes on a veth).
#include <cstdint>
#include <string>
#include <vector>

struct CapturedSegment {
	int frame;  // 1-based, as tshark numbers frames
	uint16_t sport, dport;
	std::vector<uint8_t> payload;  // trimmed to the IP and UDP lengths
};

// Empty when the file is missing, truncated or not a pcap of Ethernet
// frames.
std::vector<CapturedSegment> read_capture(const std::string &path);

