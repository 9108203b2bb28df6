#pragma once
// The --out file: every packet the filter forged, as an Ethernet pcap.
#include <string>

#include "tools/replay/capture.h"

typedef struct pcap pcap_t;
typedef struct pcap_dumper pcap_dumper_t;

namespace replay {

class ForgedPcap {
public:
	explicit ForgedPcap(const std::string &path); // throws CaptureError naming the file
	~ForgedPcap();
	ForgedPcap(const ForgedPcap &) = delete;
	ForgedPcap &operator=(const ForgedPcap &) = delete;

	// One frame (link-layer header included) at `time` seconds since the epoch.
	void write(const Bytes &frame, double time);
	// Flushes and closes; throws CaptureError when the data cannot be written.
	void close();

private:
	std::string path_;
	pcap_t *pcap_ = nullptr;
	pcap_dumper_t *dump_ = nullptr;
};

} // namespace replay
