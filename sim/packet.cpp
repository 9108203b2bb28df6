// Packet builders (see packet.h).
#include "sim/packet.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cstdio>
#include <cstring>
#include <stdexcept>

namespace sim {

namespace {

void put16(Bytes &b, size_t off, uint16_t v)
{
	b[off] = v >> 8;
	b[off + 1] = v & 0xff;
}

void put32(Bytes &b, size_t off, uint32_t v)
{
	for (int i = 0; i < 4; i++)
		b[off + i] = (v >> (24 - 8 * i)) & 0xff;
}

Bytes padded(const Bytes &b, size_t unit)
{
	Bytes out = b;
	while (out.size() % unit)
		out.push_back(0);
	return out;
}

Bytes tcp_segment(const Tcp &t)
{
	Bytes opts = padded(t.options, 4);
	Bytes s(20 + opts.size());
	put16(s, 0, t.sport);
	put16(s, 2, t.dport);
	put32(s, 4, t.seq);
	put32(s, 8, t.ack);
	s[12] = (uint8_t)(((20 + opts.size()) / 4) << 4);
	s[13] = t.flags;
	put16(s, 14, t.window);
	put16(s, 18, t.urg_ptr);
	std::copy(opts.begin(), opts.end(), s.begin() + 20);
	s.insert(s.end(), t.payload.begin(), t.payload.end());
	return s;
}

Bytes udp_datagram(const Udp &u)
{
	Bytes s(8);
	put16(s, 0, u.sport);
	put16(s, 2, u.dport);
	put16(s, 4, u.length_override >= 0 ? u.length_override : (uint16_t)(8 + u.payload.size()));
	s.insert(s.end(), u.payload.begin(), u.payload.end());
	return s;
}

uint32_t pseudo4(const Ip4 &ip, uint8_t proto, size_t len)
{
	Bytes p(12);
	memcpy(p.data(), &ip.src, 4);
	memcpy(p.data() + 4, &ip.dst, 4);
	p[9] = proto;
	put16(p, 10, (uint16_t)len);
	return sum16(p.data(), p.size());
}

uint32_t pseudo6(const Ip6 &ip, uint8_t proto, size_t len)
{
	Bytes p(40);
	memcpy(p.data(), ip.src.data(), 16);
	memcpy(p.data() + 16, ip.dst.data(), 16);
	put32(p, 32, (uint32_t)len);
	p[39] = proto;
	return sum16(p.data(), p.size());
}

void set_l4_checksum(Bytes &seg, size_t off, uint32_t pseudo, bool bad, bool udp)
{
	uint16_t c = fold_complement(sum16(seg.data(), seg.size(), pseudo));
	if (udp && c == 0)
		c = 0xffff;
	if (bad)
		c ^= 1;
	put16(seg, off, c);
}

Bytes ip4_wrap(const Ip4 &ip, uint8_t proto, const Bytes &l4)
{
	Bytes opts = padded(ip.options, 4);
	size_t hl = 20 + opts.size();
	Bytes p(hl);
	p[0] = 0x40 | (uint8_t)(hl / 4);
	p[1] = ip.tos;
	put16(p, 2, ip.tot_len_override >= 0 ? ip.tot_len_override : (uint16_t)(hl + l4.size()));
	put16(p, 4, ip.id);
	put16(p, 6, ip.frag);
	p[8] = ip.ttl;
	p[9] = proto;
	memcpy(p.data() + 12, &ip.src, 4);
	memcpy(p.data() + 16, &ip.dst, 4);
	std::copy(opts.begin(), opts.end(), p.begin() + 20);
	uint16_t c = fold_complement(sum16(p.data(), hl));
	if (ip.bad_checksum)
		c ^= 1;
	put16(p, 10, c);
	p.insert(p.end(), l4.begin(), l4.end());
	return p;
}

Bytes ip6_wrap(const Ip6 &ip, uint8_t proto, const Bytes &l4)
{
	Bytes ext;
	for (size_t i = 0; i < ip.ext.size(); i++) {
		const Ext6 &e = ip.ext[i];
		uint8_t next = i + 1 < ip.ext.size() ? ip.ext[i + 1].type : proto;
		Bytes h;
		h.push_back(next);
		if (e.type == 44) {
			h.push_back(0);
			Bytes body = e.body;
			body.resize(6);
			h.insert(h.end(), body.begin(), body.end());
		} else if (e.type == 51) {
			Bytes body = e.body;
			while ((body.size() + 2) % 4 || body.size() + 2 < 12)
				body.push_back(0);
			h.push_back((uint8_t)((body.size() + 2) / 4 - 2));
			h.insert(h.end(), body.begin(), body.end());
		} else {
			Bytes body = e.body;
			while ((body.size() + 2) % 8)
				body.push_back(0);
			h.push_back((uint8_t)((body.size() + 2) / 8 - 1));
			h.insert(h.end(), body.begin(), body.end());
		}
		ext.insert(ext.end(), h.begin(), h.end());
	}
	Bytes p(40);
	uint32_t first = (6u << 28) | ((uint32_t)ip.traffic_class << 20) | (ip.flow_label & 0xfffff);
	put32(p, 0, first);
	size_t plen = ext.size() + l4.size();
	put16(p, 4, ip.payload_len_override >= 0 ? ip.payload_len_override : (uint16_t)plen);
	p[6] = ip.ext.empty() ? proto : ip.ext[0].type;
	p[7] = ip.hop_limit;
	memcpy(p.data() + 8, ip.src.data(), 16);
	memcpy(p.data() + 24, ip.dst.data(), 16);
	p.insert(p.end(), ext.begin(), ext.end());
	p.insert(p.end(), l4.begin(), l4.end());
	return p;
}

} // namespace

uint32_t sum16(const uint8_t *p, size_t len, uint32_t sum)
{
	for (size_t i = 0; i + 1 < len; i += 2)
		sum += (uint32_t)p[i] << 8 | p[i + 1];
	if (len & 1)
		sum += (uint32_t)p[len - 1] << 8;
	return sum;
}

uint16_t fold_complement(uint32_t sum)
{
	while (sum >> 16)
		sum = (sum & 0xffff) + (sum >> 16);
	return (uint16_t)~sum;
}

uint32_t ip4(const char *dotted)
{
	struct in_addr a;
	if (inet_pton(AF_INET, dotted, &a) != 1)
		throw std::invalid_argument(dotted);
	return a.s_addr;
}

Addr6 ip6(const char *text)
{
	Addr6 a;
	if (inet_pton(AF_INET6, text, a.data()) != 1)
		throw std::invalid_argument(text);
	return a;
}

Mac mac(const char *text)
{
	Mac m;
	unsigned v[6];
	if (sscanf(text, "%x:%x:%x:%x:%x:%x", &v[0], &v[1], &v[2], &v[3], &v[4], &v[5]) != 6)
		throw std::invalid_argument(text);
	for (int i = 0; i < 6; i++)
		m[i] = (uint8_t)v[i];
	return m;
}

Bytes ip4_tcp(const Ip4 &ip, const Tcp &tcp)
{
	Bytes seg = tcp_segment(tcp);
	set_l4_checksum(seg, 16, pseudo4(ip, 6, seg.size()), tcp.bad_checksum, false);
	return ip4_wrap(ip, 6, seg);
}

Bytes ip4_udp(const Ip4 &ip, const Udp &udp)
{
	Bytes d = udp_datagram(udp);
	set_l4_checksum(d, 6, pseudo4(ip, 17, d.size()), udp.bad_checksum, true);
	return ip4_wrap(ip, 17, d);
}

Bytes ip6_tcp(const Ip6 &ip, const Tcp &tcp)
{
	Bytes seg = tcp_segment(tcp);
	set_l4_checksum(seg, 16, pseudo6(ip, 6, seg.size()), tcp.bad_checksum, false);
	return ip6_wrap(ip, 6, seg);
}

Bytes ip6_udp(const Ip6 &ip, const Udp &udp)
{
	Bytes d = udp_datagram(udp);
	set_l4_checksum(d, 6, pseudo6(ip, 17, d.size()), udp.bad_checksum, true);
	return ip6_wrap(ip, 17, d);
}

Bytes frag6_body(uint16_t offset_units, bool more, uint32_t id)
{
	Bytes b(6);
	uint16_t fo = (uint16_t)(offset_units << 3) | (more ? 1 : 0);
	b[0] = fo >> 8;
	b[1] = fo & 0xff;
	for (int i = 0; i < 4; i++)
		b[2 + i] = (id >> (24 - 8 * i)) & 0xff;
	return b;
}

Bytes fragment(const Bytes &packet, uint16_t offset_units, size_t len, bool more)
{
	if (packet.size() < 20)
		return packet;
	bool v6 = (packet[0] >> 4) == 6;
	size_t data = v6 ? 40 : (size_t)(packet[0] & 0xf) * 4, fh = 0;
	uint8_t next = v6 ? packet[6] : 0;
	while (v6 && !fh && data + 8 <= packet.size()) {
		if (next == 44) {
			fh = data;
		} else if (next == 0 || next == 43 || next == 60 || next == 51) {
			size_t hlen = next == 51 ? (packet[data + 1] + 2u) * 4 : (packet[data + 1] + 1u) * 8;
			next = packet[data];
			data += hlen;
		} else {
			break;
		}
	}
	if ((v6 && !fh) || data > packet.size())
		return packet;
	if (v6)
		data = fh + 8;
	size_t start = std::min(data + (size_t)offset_units * 8, packet.size());
	size_t end = start + std::min(len, packet.size() - start);
	Bytes f(packet.begin(), packet.begin() + data);
	f.insert(f.end(), packet.begin() + start, packet.begin() + end);
	uint16_t fo = (uint16_t)(offset_units & 0x1fff);
	if (v6) {
		put16(f, fh + 2, (uint16_t)(fo << 3 | (more ? 1 : 0)));
		put16(f, 4, (uint16_t)(f.size() - 40));
		return f;
	}
	put16(f, 2, (uint16_t)f.size());
	put16(f, 6, (uint16_t)(fo | (more ? 0x2000 : 0)));
	put16(f, 10, 0);
	put16(f, 10, fold_complement(sum16(f.data(), data)));
	return f;
}

Bytes ether(const Mac &dst, const Mac &src, const Bytes &ip_packet)
{
	Bytes f(14);
	memcpy(f.data(), dst.data(), 6);
	memcpy(f.data() + 6, src.data(), 6);
	uint16_t type = (!ip_packet.empty() && (ip_packet[0] >> 4) == 6) ? 0x86DD : 0x0800;
	put16(f, 12, type);
	f.insert(f.end(), ip_packet.begin(), ip_packet.end());
	return f;
}

std::string hex(const Bytes &b)
{
	std::string s;
	char buf[4];
	for (uint8_t c : b) {
		snprintf(buf, sizeof(buf), "%02x", c);
		s += buf;
	}
	return s;
}

Bytes l4_packet(bool udp, const char *src, const char *dst, const Tcp &tcp)
{
	Udp u;
	u.sport = tcp.sport;
	u.dport = tcp.dport;
	u.payload = tcp.payload;
	if (strchr(src, ':')) {
		Ip6 ip;
		ip.src = ip6(src);
		ip.dst = ip6(dst);
		return udp ? ip6_udp(ip, u) : ip6_tcp(ip, tcp);
	}
	Ip4 ip;
	ip.src = ip4(src);
	ip.dst = ip4(dst);
	return udp ? ip4_udp(ip, u) : ip4_tcp(ip, tcp);
}

void put16(Bytes &b, uint16_t v) { b.insert(b.end(), { uint8_t(v >> 8), uint8_t(v) }); }

void put_dns_name(Bytes &b, const std::string &name)
{
	for (size_t start = 0, dot; start <= name.size(); start = dot + 1) {
		dot = std::min(name.find('.', start), name.size());
		b.push_back((uint8_t)(dot - start));
		b.insert(b.end(), name.begin() + start, name.begin() + dot);
	}
	b.push_back(0);
}

Bytes dns_query(uint16_t id, const std::string &name, uint16_t qtype, uint16_t qclass)
{
	Bytes b;
	for (uint16_t v : { id, uint16_t(0x0100), uint16_t(1), uint16_t(0), uint16_t(0), uint16_t(0) })
		put16(b, v);
	put_dns_name(b, name);
	put16(b, qtype);
	put16(b, qclass);
	return b;
}

Bytes dns_response(uint16_t id, const std::string &name, const std::vector<const char *> &v4,
		   const std::vector<const char *> &v6)
{
	Bytes b = dns_query(id, name, v4.empty() && !v6.empty() ? 28 : 1);
	b[2] = 0x81, b[3] = 0x80;
	b[7] = uint8_t(v4.size() + v6.size());
	std::vector<const char *> all = v4;
	all.insert(all.end(), v6.begin(), v6.end());
	for (const char *a : all) {
		Bytes rdata = addr_bytes(a);
		for (uint16_t v : { uint16_t(0xc00c), uint16_t(rdata.size() == 4 ? 1 : 28), uint16_t(1), uint16_t(0),
				    uint16_t(300), uint16_t(rdata.size()) })
			put16(b, v);
		b.insert(b.end(), rdata.begin(), rdata.end());
	}
	return b;
}

Bytes addr_bytes(const char *text)
{
	Bytes b(strchr(text, ':') ? 16 : 4);
	inet_pton(b.size() == 16 ? AF_INET6 : AF_INET, text, b.data());
	return b;
}

} // namespace sim
