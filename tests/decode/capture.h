#pragma once
// Reads the UDP and TCP payloads of a classic pcap file with Ethernet
// framing (what tcpdump writes on a veth), for the decoder tests.
#include <cstdint>
#include <string>
#include <vector>

struct CapturedSegment {
	int frame;  // 1-based, as tshark numbers frames
	bool ipv6;
	bool udp;
	uint16_t sport, dport;
	std::vector<uint8_t> payload;  // trimmed to the IP and UDP lengths
};

// Empty when the file is missing or not a pcap of Ethernet frames.
std::vector<CapturedSegment> read_capture(const std::string &path);

// Runs tshark on a file with the given -Y filter and fields; one vector of
// field values per output line. Sets ok to false when tshark cannot run.
std::vector<std::vector<std::string>> tshark_fields(const std::string &path, const std::string &filter,
						    const std::vector<std::string> &fields, bool *ok);

bool have_tshark();
