#pragma once
// The UDP and TCP payloads of a classic pcap file of Ethernet frames (what
// tcpdump writes on a veth), and tshark's view of the same file.
#include <cstdint>
#include <string>
#include <vector>

struct CapturedSegment {
	int frame;  // 1-based, as tshark numbers frames
	uint16_t sport, dport;
	std::vector<uint8_t> payload;  // trimmed to the IP and UDP lengths
};

// Empty when the file is missing or not a pcap of Ethernet frames.
std::vector<CapturedSegment> read_capture(const std::string &path);

// tshark -Y filter -T fields -e ...: one row of values per line. Sets ok
// to false when tshark fails.
std::vector<std::vector<std::string>> tshark_fields(const std::string &path, const std::string &filter,
						    const std::vector<std::string> &fields, bool *ok);
