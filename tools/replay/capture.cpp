// libpcap reading and link-layer splitting (see capture.h).
#include "tools/replay/capture.h"

#include <pcap/pcap.h>

#include <cstring>

namespace replay {

namespace {

enum : uint16_t { ETHERTYPE_IPV4 = 0x0800, ETHERTYPE_IPV6 = 0x86dd, ETHERTYPE_VLAN = 0x8100, ETHERTYPE_QINQ = 0x88a8 };
enum { ETHER_HLEN = 14, VLAN_HLEN = 4, SLL_HLEN = 16, SLL2_HLEN = 20 };
// Linux cooked headers: the sender's address length and address, and the
// protocol, at these offsets.
enum { SLL_HALEN = 4, SLL_ADDR = 6, SLL_PROTO = 14, SLL2_PROTO = 0, SLL2_HALEN = 11, SLL2_ADDR = 12 };
enum { LINK_IPV4 = 228, LINK_IPV6 = 229 };

uint16_t get16(const uint8_t *p) { return uint16_t(p[0] << 8 | p[1]); }

Mac mac_at(const uint8_t *p)
{
	Mac m;
	memcpy(m.data(), p, 6);
	return m;
}

std::string ethertype_text(uint16_t type)
{
	char s[64];
	if (type == 0x0806)
		return "ARP, not IP";
	snprintf(s, sizeof(s), "link-layer protocol 0x%04x, not IP", type);
	return s;
}

} // namespace

CaptureReader::CaptureReader(const std::string &path) : path_(path)
{
	char err[PCAP_ERRBUF_SIZE] = "";
	pcap_ = pcap_open_offline_with_tstamp_precision(path.c_str(), PCAP_TSTAMP_PRECISION_NANO, err);
	if (!pcap_) // libpcap names the file itself when it cannot open it
		throw CaptureError(std::string(err).rfind(path, 0) == 0 ? err : path + ": " + err);
	link_ = pcap_datalink(pcap_);
	const char *name = pcap_datalink_val_to_name(link_);
	link_name_ = name ? name : "link type " + std::to_string(link_);
	switch (link_) {
	case DLT_EN10MB:
	case DLT_LINUX_SLL:
	case DLT_LINUX_SLL2:
	case DLT_RAW:
	case LINK_IPV4:
	case LINK_IPV6:
		return;
	}
	pcap_close(pcap_);
	pcap_ = nullptr;
	throw CaptureError(path + ": link type " + std::to_string(link_) + " (" + link_name_ +
			   ") is not supported: Ethernet, Linux cooked (SLL, SLL2) or raw IP only");
}

CaptureReader::~CaptureReader()
{
	if (pcap_)
		pcap_close(pcap_);
}

bool CaptureReader::next(CapturedPacket *p)
{
	struct pcap_pkthdr *h;
	const u_char *data;
	int rc = pcap_next_ex(pcap_, &h, &data);
	if (rc == PCAP_ERROR_BREAK)
		return false;
	count_++;
	if (rc != 1)
		throw CaptureError(path_ + ": packet " + std::to_string(count_) + ": " + pcap_geterr(pcap_));
	*p = CapturedPacket();
	p->number = count_;
	p->time = double(h->ts.tv_sec) + double(h->ts.tv_usec) / 1e9;
	p->caplen = h->caplen;
	p->len = h->len;
	split(data, p);
	return true;
}

void CaptureReader::split(const uint8_t *data, CapturedPacket *p) const
{
	size_t n = p->caplen, off = 0;
	uint16_t proto = 0;
	const char *cut_header = "cut by the snap length inside the link-layer header";
	switch (link_) {
	case DLT_EN10MB:
		if (n < ETHER_HLEN) {
			p->skip = cut_header;
			return;
		}
		p->src_mac = mac_at(data + 6);
		p->ethernet = true;
		proto = get16(data + 12);
		off = ETHER_HLEN;
		while ((proto == ETHERTYPE_VLAN || proto == ETHERTYPE_QINQ) && off + VLAN_HLEN <= n) {
			proto = get16(data + off + 2);
			off += VLAN_HLEN;
		}
		break;
	case DLT_LINUX_SLL:
		if (n < SLL_HLEN) {
			p->skip = cut_header;
			return;
		}
		if (get16(data + SLL_HALEN) == 6)
			p->src_mac = mac_at(data + SLL_ADDR);
		proto = get16(data + SLL_PROTO);
		off = SLL_HLEN;
		break;
	case DLT_LINUX_SLL2:
		if (n < SLL2_HLEN) {
			p->skip = cut_header;
			return;
		}
		if (data[SLL2_HALEN] == 6)
			p->src_mac = mac_at(data + SLL2_ADDR);
		proto = get16(data + SLL2_PROTO);
		off = SLL2_HLEN;
		break;
	default: // raw IP: the version says which
		if (n == 0) {
			p->skip = "empty record";
			return;
		}
		proto = (data[0] >> 4) == 6 ? ETHERTYPE_IPV6 : (data[0] >> 4) == 4 ? ETHERTYPE_IPV4 : 0;
		if (!proto) {
			p->skip = "IP version " + std::to_string(data[0] >> 4) + ", not 4 or 6";
			return;
		}
		break;
	}
	if (proto != ETHERTYPE_IPV4 && proto != ETHERTYPE_IPV6) {
		p->skip = ethertype_text(proto);
		return;
	}
	p->ip.assign(data + off, data + n);
	if (p->ip.empty()) {
		p->skip = "cut by the snap length before the IP header";
		return;
	}
	int version = p->ip[0] >> 4;
	if (version != (proto == ETHERTYPE_IPV6 ? 6 : 4))
		p->skip = "IP version " + std::to_string(version) + " in a frame marked IPv" + (proto == ETHERTYPE_IPV6 ? "6" : "4");
}

} // namespace replay
