#pragma once
// Classic pcap files: a writer so tests can hand packets to tshark, and a
// reader for the captures of real traffic the tests replay.
#include <string>
#include <vector>

#include "sim/packet.h"

namespace sim {

enum PcapLink : uint32_t { PCAP_ETHERNET = 1, PCAP_RAW_IP = 101 };

// Writes the packets, one record each (timestamps 1 s apart). False when
// the file cannot be written.
bool pcap_write(const std::string &path, const std::vector<Bytes> &packets, PcapLink link);

// Reads the captured bytes of every record and the file's link type.
// Accepts microsecond and nanosecond files in either byte order. False
// when the file cannot be read, is not a classic pcap file, or a record
// header or record runs past the end of the file; records then holds the
// complete records before the fault.
bool pcap_read(const std::string &path, std::vector<Bytes> *records, PcapLink *link);

} // namespace sim
