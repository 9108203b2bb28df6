#include "capture.h"

#include "sim/pcap.h"

static uint16_t be16(const uint8_t *p) { return (uint16_t)(p[0] << 8 | p[1]); }

static bool parse_frame(const uint8_t *f, size_t n, CapturedSegment *seg)
{
	size_t l3len, l4off, l4len;
	int proto;

	if (n < 14 + 40)
		return false;
	f += 14;
	n -= 14;
	if (be16(f - 2) == 0x0800 && (f[0] >> 4) == 4) {
		l3len = be16(f + 2);
		l4off = (f[0] & 0x0f) * 4u;
		proto = f[9];
	} else if (be16(f - 2) == 0x86dd) {
		l3len = 40u + be16(f + 4);
		l4off = 40;  // the captures carry no extension headers
		proto = f[6];
	} else {
		return false;
	}
	if (l3len > n || l4off + 20 > l3len)
		return false;
	const uint8_t *l4 = f + l4off;
	l4len = l3len - l4off;
	if (proto == 17 && be16(l4 + 4) >= 8 && be16(l4 + 4) <= l4len)
		seg->payload.assign(l4 + 8, l4 + be16(l4 + 4));
	else if (proto == 6 && (l4[12] >> 4) * 4u <= l4len)
		seg->payload.assign(l4 + (l4[12] >> 4) * 4u, l4 + l4len);
	else
		return false;
	seg->sport = be16(l4);
	seg->dport = be16(l4 + 2);
	return true;
}

std::vector<CapturedSegment> read_capture(const std::string &path)
{
	std::vector<CapturedSegment> out;
	std::vector<sim::Bytes> frames;
	sim::PcapLink link;

	if (!sim::pcap_read(path, &frames, &link) || link != sim::PCAP_ETHERNET)
		return out;
	for (size_t i = 0; i < frames.size(); i++) {
		CapturedSegment seg{ (int)i + 1, 0, 0, {} };
		if (parse_frame(frames[i].data(), frames[i].size(), &seg))
			out.push_back(seg);
	}
	return out;
}
