// Writing the forged packets with libpcap (see forged_pcap.h).
#include "tools/replay/forged_pcap.h"

#include <pcap/pcap.h>

#include <cmath>

namespace replay {

ForgedPcap::ForgedPcap(const std::string &path) : path_(path)
{
	pcap_ = pcap_open_dead_with_tstamp_precision(DLT_EN10MB, 65535, PCAP_TSTAMP_PRECISION_MICRO);
	if (!pcap_)
		throw CaptureError(path + ": cannot set up a pcap writer");
	dump_ = pcap_dump_open(pcap_, path.c_str());
	if (!dump_) {
		std::string err = pcap_geterr(pcap_);
		pcap_close(pcap_);
		pcap_ = nullptr;
		throw CaptureError(err.rfind(path, 0) == 0 ? err : path + ": " + err);
	}
}

ForgedPcap::~ForgedPcap()
{
	if (dump_)
		pcap_dump_close(dump_);
	if (pcap_)
		pcap_close(pcap_);
}

void ForgedPcap::write(const Bytes &frame, double time)
{
	struct pcap_pkthdr h = {};
	double sec = std::floor(time);
	h.ts.tv_sec = time_t(sec);
	h.ts.tv_usec = suseconds_t(std::lround((time - sec) * 1e6));
	if (h.ts.tv_usec >= 1000000)
		h.ts.tv_sec++, h.ts.tv_usec -= 1000000;
	h.caplen = h.len = bpf_u_int32(frame.size());
	pcap_dump((u_char *)dump_, &h, frame.data());
}

void ForgedPcap::close()
{
	if (!dump_)
		return;
	bool ok = pcap_dump_flush(dump_) == 0;
	pcap_dump_close(dump_);
	dump_ = nullptr;
	if (!ok)
		throw CaptureError(path_ + ": cannot write the forged packets");
}

} // namespace replay
