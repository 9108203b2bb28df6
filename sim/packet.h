#pragma once
// Packet builders for tests and the simulated router: IPv4/IPv6 with TCP
// or UDP, IP options, IPv6 extension headers, payload, Ethernet framing,
// checksums right or deliberately wrong. Checksums are computed here with
// a plain RFC 1071 sum over big-endian 16-bit words, independently of the
// kernel model's routines.
#include <array>
#include <cstdint>
#include <string>
#include <vector>

namespace sim {

using Bytes = std::vector<uint8_t>;
using Mac = std::array<uint8_t, 6>;
using Addr6 = std::array<uint8_t, 16>;

// Addresses: IPv4 as 4 bytes in wire order packed into a uint32_t exactly
// as the kernel keeps them (__be32); IPv6 as 16 wire bytes.
uint32_t ip4(const char *dotted);
Addr6 ip6(const char *text);
Mac mac(const char *text); // "00:11:22:33:44:55"

enum : uint8_t { FIN = 0x01, SYN = 0x02, RST = 0x04, PSH = 0x08, ACK = 0x10, URG = 0x20, ECE = 0x40, CWR = 0x80 };

struct Tcp {
	uint16_t sport = 40000, dport = 80; // host order
	uint32_t seq = 1000, ack = 0;       // host order
	uint8_t flags = ACK;
	uint16_t window = 29200;
	uint16_t urg_ptr = 0;
	Bytes options;                      // padded to 4 bytes with zeros (EOL)
	Bytes payload;
	bool bad_checksum = false;          // flips the checksum's low bit
};

struct Udp {
	uint16_t sport = 40000, dport = 53;
	Bytes payload;
	bool bad_checksum = false;
	int length_override = -1;           // UDP length field, when >= 0
};

struct Ip4 {
	uint32_t src = 0, dst = 0;          // from ip4()
	uint8_t tos = 0, ttl = 64;
	uint16_t id = 0x1234;
	uint16_t frag = 0x4000;             // DF
	Bytes options;                      // padded to 4 bytes with zeros (EOL)
	bool bad_checksum = false;
	int tot_len_override = -1;
};

// One IPv6 extension header: type is the header's own type (0 hop-by-hop,
// 43 routing, 44 fragment, 51 AH, 60 destination options). body is what
// follows the next-header and length bytes; it is padded so the header
// is a multiple of 8 bytes (AH: of 4). For a fragment header, body holds
// the 6 bytes after the next-header and reserved bytes.
struct Ext6 {
	uint8_t type;
	Bytes body;
};

struct Ip6 {
	Addr6 src{}, dst{};
	uint8_t hop_limit = 64;
	uint8_t traffic_class = 0;
	uint32_t flow_label = 0;
	std::vector<Ext6> ext;
	int payload_len_override = -1;
};

Bytes ip4_tcp(const Ip4 &ip, const Tcp &tcp);
Bytes ip4_udp(const Ip4 &ip, const Udp &udp);
Bytes ip6_tcp(const Ip6 &ip, const Tcp &tcp);
Bytes ip6_udp(const Ip6 &ip, const Udp &udp);
// A fragment header body: offset in 8-byte units, more-fragments flag, id.
Bytes frag6_body(uint16_t offset_units, bool more, uint32_t id);

// One fragment of a whole packet: bytes [8 * offset_units, + len) of what
// follows the IPv4 header or, for IPv6, the packet's fragment header
// (which the packet must carry; without one it is returned as it is), with
// the offset and more-fragments flag set there and the lengths and the
// IPv4 header checksum made to match. A slice past the end is cut short.
Bytes fragment(const Bytes &packet, uint16_t offset_units, size_t len, bool more);

// A TCP segment (ports, flags, sequence numbers and payload from `tcp`)
// or, with `udp` set, a UDP datagram with the same ports and payload,
// between addresses given as text: IPv6 when they hold ':'.
Bytes l4_packet(bool udp, const char *src, const char *dst, const Tcp &tcp);

// DNS wire pieces: a big-endian 16-bit word; a name as length-prefixed
// labels ending in the root label.
void put16(Bytes &b, uint16_t v);
void put_dns_name(Bytes &b, const std::string &name);
// A standard query (RD set) for one name; a response to it (QR RD RA, no
// error) with one A record per v4 and one AAAA record per v6 address (as
// text, v4 first), owners compressed to the question name, TTL 300. The
// question asks for AAAA when there are AAAA records only.
Bytes dns_query(uint16_t id, const std::string &name, uint16_t qtype = 1, uint16_t qclass = 1);
Bytes dns_response(uint16_t id, const std::string &name, const std::vector<const char *> &v4,
		   const std::vector<const char *> &v6 = {});
// An address given as text in wire order: 4 bytes, or 16 when it holds ':'.
Bytes addr_bytes(const char *text);

// An Ethernet frame around an IP packet (type from the IP version).
Bytes ether(const Mac &dst, const Mac &src, const Bytes &ip_packet);

// RFC 1071 sum (not complemented, not folded past 16 bits) over bytes
// read as big-endian 16-bit words.
uint32_t sum16(const uint8_t *p, size_t len, uint32_t sum = 0);
uint16_t fold_complement(uint32_t sum);

std::string hex(const Bytes &b);

} // namespace sim
