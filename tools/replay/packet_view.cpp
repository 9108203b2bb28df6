// Reading packets for the per-packet lines (see packet_view.h).
#include "tools/replay/packet_view.h"

#include <arpa/inet.h>

namespace replay {

namespace {

enum { IP4_HLEN = 20, IP6_HLEN = 40, TCP_HLEN = 20, UDP_HLEN = 8 };
enum { PROTO_TCP = 6, PROTO_UDP = 17, PROTO_ICMP = 1, PROTO_ICMPV6 = 58 };
enum { TCP_FIN = 0x01, TCP_SYN = 0x02, TCP_RST = 0x04, TCP_PSH = 0x08, TCP_ACK = 0x10, TCP_URG = 0x20 };

uint16_t get16(const uint8_t *p) { return uint16_t(p[0] << 8 | p[1]); }
uint32_t get32(const uint8_t *p) { return uint32_t(p[0]) << 24 | p[1] << 16 | p[2] << 8 | p[3]; }

std::string addr_text(bool v6, const uint8_t *a)
{
	char s[INET6_ADDRSTRLEN];
	inet_ntop(v6 ? AF_INET6 : AF_INET, a, s, sizeof(s));
	return s;
}

// The transport header's offset behind IPv6 extension headers; 0 when
// the chain is cut or holds a later fragment.
size_t skip_ext6(const uint8_t *ip, size_t len, int *proto)
{
	size_t off = IP6_HLEN;
	int next = ip[6];
	for (;;) {
		if (next == 0 || next == 43 || next == 60) {
			if (off + 2 > len)
				return 0;
			int n = ip[off];
			off += (size_t(ip[off + 1]) + 1) * 8;
			next = n;
		} else if (next == 51) {
			if (off + 2 > len)
				return 0;
			int n = ip[off];
			off += (size_t(ip[off + 1]) + 2) * 4;
			next = n;
		} else if (next == 44) {
			if (off + 8 > len || (get16(ip + off + 2) & 0xfff8) != 0)
				return 0;
			next = ip[off];
			off += 8;
		} else {
			*proto = next;
			return off;
		}
	}
}

} // namespace

std::string PacketView::proto_name() const
{
	switch (proto) {
	case PROTO_TCP:
		return "TCP";
	case PROTO_UDP:
		return "UDP";
	case PROTO_ICMP:
		return "ICMP";
	case PROTO_ICMPV6:
		return "ICMPv6";
	case -1:
		return "?";
	}
	return "proto " + std::to_string(proto);
}

std::string PacketView::flag_text() const
{
	static const struct {
		uint8_t bit;
		const char *name;
	} names[] = {{TCP_SYN, "SYN"}, {TCP_FIN, "FIN"}, {TCP_RST, "RST"}, {TCP_PSH, "PSH"}, {TCP_URG, "URG"}, {TCP_ACK, "ACK"}};
	std::string s;
	for (auto &n : names)
		if (flags & n.bit)
			s += (s.empty() ? "" : ",") + std::string(n.name);
	return s;
}

std::string PacketView::ends() const
{
	auto end = [&](const std::string &a, uint16_t port) {
		if (!has_ports)
			return a;
		return (v6 ? "[" + a + "]" : a) + ":" + std::to_string(port);
	};
	return end(src, sport) + " -> " + end(dst, dport);
}

PacketView view_packet(const uint8_t *ip, size_t len)
{
	PacketView v;
	if (len < 1)
		return v;
	v.v6 = (ip[0] >> 4) == 6;
	size_t off;
	int proto;
	if (v.v6) {
		if (len < IP6_HLEN)
			return v;
		v.src_addr = ip + 8, v.dst_addr = ip + 24;
		off = skip_ext6(ip, len, &proto);
		if (!off)
			proto = ip[6];
	} else {
		if (len < IP4_HLEN)
			return v;
		v.src_addr = ip + 12, v.dst_addr = ip + 16;
		proto = ip[9];
		off = size_t(ip[0] & 0xf) * 4;
		if ((get16(ip + 6) & 0x1fff) != 0) // a later fragment: no transport header
			off = 0;
	}
	v.src = addr_text(v.v6, v.src_addr);
	v.dst = addr_text(v.v6, v.dst_addr);
	v.proto = proto;
	if (!off || off > len)
		return v;
	const uint8_t *t = ip + off;
	size_t left = len - off;
	if ((proto == PROTO_TCP || proto == PROTO_UDP) && left >= 4) {
		v.has_ports = true;
		v.sport = get16(t);
		v.dport = get16(t + 2);
	}
	if (proto == PROTO_TCP && left >= TCP_HLEN) {
		v.has_tcp = true;
		v.seq = get32(t + 4);
		v.ack = get32(t + 8);
		v.flags = t[13];
		size_t doff = size_t(t[12] >> 4) * 4;
		if (doff >= TCP_HLEN && doff <= left)
			v.payload.assign((const char *)t + doff, left - doff);
	} else if (proto == PROTO_UDP && left >= UDP_HLEN) {
		v.payload.assign((const char *)t + UDP_HLEN, left - UDP_HLEN);
	}
	return v;
}

std::string forged_kind(const PacketView &v)
{
	if (!v.has_tcp)
		return "other";
	if (v.flags & TCP_RST)
		return "reset";
	if (v.payload.rfind("HTTP/1.1 302 Found\r\n", 0) == 0)
		return "redirect";
	if (!v.payload.empty())
		return "held copy";
	if ((v.flags & (TCP_FIN | TCP_ACK)) == (TCP_FIN | TCP_ACK))
		return "fin-ack";
	if (v.flags == TCP_ACK)
		return "ack";
	return "other";
}

std::string redirect_location(const PacketView &v)
{
	static const std::string key = "\r\nLocation: ";
	size_t at = v.payload.find(key);
	if (at == std::string::npos)
		return "";
	at += key.size();
	size_t end = v.payload.find("\r\n", at);
	return v.payload.substr(at, end == std::string::npos ? std::string::npos : end - at);
}

} // namespace replay
