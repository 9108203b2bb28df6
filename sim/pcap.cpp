// pcap writer (classic format, microsecond timestamps, host byte order).
#include "sim/pcap.h"

#include <cstdio>

namespace sim {

bool pcap_write(const std::string &path, const std::vector<Bytes> &packets, PcapLink link)
{
	FILE *f = fopen(path.c_str(), "wb");
	if (!f)
		return false;
	struct {
		uint32_t magic;
		uint16_t major, minor;
		int32_t thiszone;
		uint32_t sigfigs, snaplen, network;
	} hdr = {0xa1b2c3d4, 2, 4, 0, 0, 65535, link};
	bool ok = fwrite(&hdr, sizeof(hdr), 1, f) == 1;
	uint32_t sec = 1000000000;
	for (const Bytes &p : packets) {
		uint32_t rec[4] = {sec++, 0, (uint32_t)p.size(), (uint32_t)p.size()};
		ok = ok && fwrite(rec, sizeof(rec), 1, f) == 1;
		ok = ok && (p.empty() || fwrite(p.data(), p.size(), 1, f) == 1);
	}
	return fclose(f) == 0 && ok;
}

} // namespace sim
