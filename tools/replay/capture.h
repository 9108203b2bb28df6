#pragma once
// Reading a capture with libpcap: pcap and pcapng files with Ethernet,
// Linux cooked (SLL, SLL2) or raw IP link types. Each record comes out as
// the IP packet it carries, with the link-layer addresses where the link
// type has them.
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "tools/replay/lan.h"

typedef struct pcap pcap_t;

namespace replay {

using Bytes = std::vector<uint8_t>;

struct CapturedPacket {
	uint64_t number = 0;        // 1 for the first record
	double time = 0;            // seconds since the epoch, as captured
	uint32_t caplen = 0, len = 0;
	Bytes ip;                   // the network-layer bytes as captured
	std::optional<Mac> src_mac; // the sender's link-layer address
	bool ethernet = false;      // src_mac comes from an Ethernet header
	std::string skip;           // why the packet cannot reach the IP hooks ("" if it can)
	bool cut() const { return caplen < len; }
};

// The capture cannot be opened or read on: the message names the file
// (and the packet number where one is at fault).
struct CaptureError : std::runtime_error {
	using std::runtime_error::runtime_error;
};

class CaptureReader {
public:
	explicit CaptureReader(const std::string &path); // throws CaptureError
	~CaptureReader();
	CaptureReader(const CaptureReader &) = delete;
	CaptureReader &operator=(const CaptureReader &) = delete;

	// The next record; false at the end of the file. Throws CaptureError
	// on a truncated or corrupt record.
	bool next(CapturedPacket *p);
	const std::string &link_name() const { return link_name_; }

private:
	void split(const uint8_t *data, CapturedPacket *p) const;

	std::string path_;
	pcap_t *pcap_ = nullptr;
	int link_ = 0;
	std::string link_name_;
	uint64_t count_ = 0;
};

} // namespace replay
