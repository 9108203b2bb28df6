// pcap writer (classic format, microsecond timestamps, host byte order)
// and reader.
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

static bool read_file(const std::string &path, Bytes *out)
{
	FILE *f = fopen(path.c_str(), "rb");
	if (!f)
		return false;
	uint8_t chunk[65536];
	size_t got;
	while ((got = fread(chunk, 1, sizeof(chunk), f)) > 0)
		out->insert(out->end(), chunk, chunk + got);
	bool ok = !ferror(f);
	fclose(f);
	return ok;
}

static uint32_t get32(const uint8_t *p, bool big)
{
	if (big)
		return (uint32_t)p[0] << 24 | p[1] << 16 | p[2] << 8 | p[3];
	return (uint32_t)p[3] << 24 | p[2] << 16 | p[1] << 8 | p[0];
}

enum { PCAP_FILE_HDR = 24, PCAP_REC_HDR = 16 };

bool pcap_read(const std::string &path, std::vector<Bytes> *records, PcapLink *link)
{
	Bytes b;
	records->clear();
	if (!read_file(path, &b) || b.size() < PCAP_FILE_HDR)
		return false;
	bool big;
	uint32_t magic = get32(&b[0], false);
	if (magic == 0xa1b2c3d4 || magic == 0xa1b23c4d)
		big = false;
	else if (magic == 0xd4c3b2a1 || magic == 0x4d3cb2a1)
		big = true;
	else
		return false;
	*link = (PcapLink)get32(&b[20], big);

	size_t pos = PCAP_FILE_HDR;
	while (pos < b.size()) {
		if (b.size() - pos < PCAP_REC_HDR)
			return false;
		uint32_t caplen = get32(&b[pos + 8], big);
		pos += PCAP_REC_HDR;
		if (caplen > b.size() - pos)
			return false;
		records->emplace_back(b.begin() + pos, b.begin() + pos + caplen);
		pos += caplen;
	}
	return true;
}

} // namespace sim
