#pragma once
// A minimal pcap file writer so tests can hand packets to tshark.
#include <string>
#include <vector>

#include "sim/packet.h"

namespace sim {

enum PcapLink : uint32_t { PCAP_ETHERNET = 1, PCAP_RAW_IP = 101 };

// Writes the packets, one record each (timestamps 1 s apart). False when
// the file cannot be written.
bool pcap_write(const std::string &path, const std::vector<Bytes> &packets, PcapLink link);

} // namespace sim
