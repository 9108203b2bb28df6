// libFuzzer target for the whole filter on the simulated router: packets
// of both families built from the input so that most are well-formed, in
// any service mode, with control-file writes, daemon replies (malformed
// ones too), clock jumps across the wrap, conntrack expiry and refused
// allocations. The table and buffer invariants (sim/invariants.h) are
// checked after every step.
//
// Input: a mode byte (bit 0 WP, bit 1 PC; with bits 6 and 7 both set, a
// second byte makes one step of the load fail, see failing_load), then
// steps [op] [a] [b] [n] [n bytes], op & 7 choosing:
//   0 a packet: a bit 0 IPv6, bits 1-2 TCP / UDP / DNS query-or-answer /
//     raw bytes, bit 3 from the server, bit 4 via br1, bits 5-7 the client
//     (8 of them: the time-blocked and the exempted device among them);
//     b picks the server port (80, 443, 53, 8443 or 1024 + b) and, bit 7,
//     the more-fragments flag on a whole IPv4 packet; the bytes are the
//     TCP flags and the payload; op bits 3-4 make 20, 40 or 60 bytes
//     linear instead of all; op bits 5-7 send the packet (not raw bytes)
//     as fragments of either family instead (see fragments()), the last
//     byte then choosing their sizes and, over IPv6, the extension headers
//     in front of the fragment header
//   1 a DNS answer giving server b's addresses for name a % 16; with a
//     bit 7 set, 120 queries and answers of names and addresses not seen
//     before (from the input's count of such bursts), which fill the DNS
//     table and the flow tables past their 100 slots
//   2 replies to the requests the daemon holds: verdict a & 3 (3 an
//     unknown code), b bit 0 a short buffer (b bytes), bit 1 another kind,
//     bit 2 another service, bit 3 every reply twice, bit 4 a long address,
//     bit 6 an unterminated one, bit 7 both ports zero; with b bit 5,
//     replies instead to the requests read so far (old ones too) that the
//     bytes pick by index
//   3 the bytes written to control file a & 3
//   4 the clock moves by a * 256 + b ticks, by 2^31 when a is 255
//   5 with a bit 7 clear, every conntrack entry expires; with it set, a
//     flow to an address a DNS answer gave out (see flow())
//   6 allocation a % 8 + 1 from now fails (kmalloc, or a buffer if b & 1)
//   7 with a bit 7 clear, the service switches: WP a & 1, PC a & 2;
//     with a bit 7 set, a whole HTTP conversation (see conversation())
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "core/rating.h"
#include "sim/invariants.h"
#include "fuzz/populate.h"
#include "hooks/update_host.h"
#include "kmodel/host.h"
#include "kmodel/net.h"
#include "net/neighbour.h"

namespace {

const char *const kFiles[] = {"wl_warning_page", "pcg_proc", "tblock_proc", "unblock_proc"};
const char *const kClients4[] = {"192.168.1.10", "192.168.1.11", "192.168.1.12", "192.168.1.13"};
const char *const kClients6[] = {"2001:db8:1::10", "2001:db8:1::11", "2001:db8:1::12", "2001:db8:1::13"};

std::string server4(uint8_t b) { return "93.184.216." + std::to_string(1 + b % 250); }
std::string server6(uint8_t b) { return "2001:db8:2::" + std::to_string(1 + b % 250); }
std::string name(uint8_t a) { return "n" + std::to_string(a % 16) + ".example"; }

sim::Mac client_mac(int who)
{
	// 0: the time-blocked device, 1: the exempted one.
	return {0x00, 0x11, 0x22, 0x33, 0x44, uint8_t(0x55 + who)};
}

// A TCP segment or UDP datagram; an IPv6 one carries a fragment header
// (offset 0, id 0x5678) behind the extension headers chosen by ext
// (0 none, 1 hop-by-hop, 2 destination options and a routing header,
// 3 hop-by-hop and destination options) when ext >= 0.
sim::Bytes segment(bool udp, const std::string &src, const std::string &dst, uint16_t sport, uint16_t dport,
		   uint8_t flags, uint32_t seq, const std::string &payload, int ext)
{
	if (ext < 0 || src.find(':') == std::string::npos)
		return fuzz::l4(udp, src.c_str(), dst.c_str(), sport, dport, flags, seq, 500, payload);
	sim::Ip6 ip6;
	ip6.src = sim::ip6(src.c_str());
	ip6.dst = sim::ip6(dst.c_str());
	if (ext == 1 || ext == 3)
		ip6.ext.push_back({0, {1, 2, 0, 0}});
	if (ext == 2 || ext == 3)
		ip6.ext.push_back({60, {1, 0}});
	if (ext == 2)
		ip6.ext.push_back({43, {0, 0, 0, 0, 0, 0}});
	ip6.ext.push_back({44, sim::frag6_body(0, false, 0x5678)});
	sim::Tcp t;
	t.sport = sport;
	t.dport = dport;
	t.flags = flags;
	t.seq = seq;
	t.ack = 500;
	t.payload.assign(payload.begin(), payload.end());
	if (!udp)
		return sim::ip6_tcp(ip6, t);
	sim::Udp u;
	u.sport = sport;
	u.dport = dport;
	u.payload = t.payload;
	return sim::ip6_udp(ip6, u);
}

// The fragments of a whole packet that one packet step sends: kind
// (op >> 5) 1 a first fragment with more to come, 8 * (k + 1) bytes;
// 2 a later fragment at offset k + 1 (8-byte units), more to come if
// fp bit 6, else a lone last fragment; 3 two overlapping fragments (the
// first of k + 2 units, the second from offset k); 4 the whole packet in
// fragments of k + 1 units, in order; 5 the same in reverse order; 6 a
// first fragment of k % 8 bytes, too short for any header behind it;
// 7 an atomic fragment (offset 0, no more to come). k = fp & 15.
std::vector<sim::Bytes> fragments(const sim::Bytes &whole, int kind, uint8_t fp)
{
	size_t k = fp & 15, step = 8 * (k + 1);
	std::vector<sim::Bytes> out;
	switch (kind) {
	case 1: out.push_back(sim::fragment(whole, 0, step, true)); break;
	case 2: out.push_back(sim::fragment(whole, uint16_t(k + 1), SIZE_MAX, fp & 0x40)); break;
	case 3:
		out.push_back(sim::fragment(whole, 0, 8 * (k + 2), true));
		out.push_back(sim::fragment(whole, uint16_t(k), SIZE_MAX, false));
		break;
	case 4:
	case 5:
		for (size_t off = 0, header = sim::fragment(whole, 0, 0, true).size(); out.size() < 32; off += k + 1) {
			out.push_back(sim::fragment(whole, uint16_t(off), step, true));
			if (out.back().size() - header < step)
				break;
		}
		out.back() = sim::fragment(whole, uint16_t((out.size() - 1) * (k + 1)), step, false);
		if (kind == 5)
			std::reverse(out.begin(), out.end());
		break;
	case 6: out.push_back(sim::fragment(whole, 0, k % 8, true)); break;
	default: out.push_back(sim::fragment(whole, 0, SIZE_MAX, false)); break;
	}
	return out;
}

void packet(sim::Router &r, uint8_t op, uint8_t a, uint8_t b, const uint8_t *p, size_t n)
{
	bool v6 = a & 1, from_server = a & 8;
	int kind = (a >> 1) & 3, who = a >> 5, frag = op >> 5;
	struct net_device *lan = (a & 0x10) ? r.br1() : r.br0();
	static const uint16_t ports[] = {80, 443, 53, 8443};
	uint16_t port = (b & 0x7f) < 4 ? ports[b & 3] : uint16_t(1024 + (b & 0x7f));
	std::string client = v6 ? kClients6[who & 3] : kClients4[who & 3];
	std::string server = v6 ? server6(b) : server4(b);
	// With fragments, the last byte (if there are two or more) is fp.
	uint8_t fp = frag && n >= 2 ? p[--n] : 0;
	int ext = frag ? (fp >> 4) & 3 : -1;
	uint8_t flags = n ? p[0] : 0;
	std::string payload(p + (n ? 1 : 0), p + n);
	sim::Bytes ip;
	if (kind == 3) {
		ip.assign(p, p + n);
		frag = 0;
	} else if (kind == 2 && v6) {
		// No IPv6 resolver: a datagram to port 53 of the input's bytes.
		ip = segment(true, client, server, 40001, 53, 0, 0, payload, ext);
	} else if (kind == 2) {
		std::string dns = fuzz::dns_answer(name(flags), server4(b).c_str(), server6(b).c_str(), from_server);
		ip = fuzz::l4(true, from_server ? fuzz::kResolver : client.c_str(),
			      from_server ? client.c_str() : fuzz::kResolver, from_server ? 53 : 40001,
			      from_server ? 40001 : 53, 0, 0, 0, dns);
	} else {
		uint16_t cport = uint16_t(40000 + (who & 3));
		ip = segment(kind == 1, from_server ? server : client, from_server ? client : server,
			     from_server ? port : cport, from_server ? cport : port, flags, 1000 + flags, payload, ext);
		if (!v6 && !frag && (b & 0x80) && ip.size() > 20)
			ip[6] |= 0x20; // more fragments
	}
	if (ip.empty())
		return;
	size_t linear = (op >> 3) & 3 ? (size_t)((op >> 3) & 3) * 20 : SIZE_MAX;
	sim::Mac mac = client_mac(who);
	for (const sim::Bytes &f : frag ? fragments(ip, frag, fp) : std::vector<sim::Bytes>{ip}) {
		if (from_server)
			r.forward(f, r.wan(), lan, sim::kGatewayMac, linear);
		else
			r.forward(f, lan, r.wan(), mac, linear);
	}
}

void replies(sim::NetlinkPeer &daemon, uint8_t a, uint8_t b, const uint8_t *p = nullptr, size_t n = 0);

// Conversations and flows of one input so far: each gets client ports of
// its own, so that none lands in a connection an earlier one left open.
unsigned g_sessions;

// Clients on routes of each kind: the boot's header-cache routes, a
// neighbour only, neither, and no route at all.
const char *const kConv4[] = {"192.168.1.20", "192.168.7.20", "192.168.8.20", "10.9.9.20"};
const char *const kConv6[] = {"2001:db8:1::20", "2001:db8:7::20", "2001:db8:8::20", "2001:db9::20"};

void conversation_routes(sim::Router &r)
{
	static const sim::Mac next = {0x00, 0x11, 0x22, 0x33, 0x44, 0x77};
	struct neighbour *n4 = r.neighbour("192.168.7.1", r.br0(), next, NUD_REACHABLE, 0);
	struct neighbour *n6 = r.neighbour("2001:db8:7::1", r.br0(), next, NUD_REACHABLE, 0);
	r.route("192.168.7.0/24", r.br0(), KMODEL_OUT_NEIGH, nullptr, n4);
	r.route("2001:db8:7::/64", r.br0(), KMODEL_OUT_NEIGH, nullptr, n6);
	r.route("192.168.8.0/24", r.br0(), KMODEL_OUT_NONE);
	r.route("2001:db8:8::/64", r.br0(), KMODEL_OUT_NONE);
	// Three of the four clients in the neighbour tables: packets from a
	// server find their device's MAC there, or not.
	for (int who = 0; who < 3; who++) {
		r.neighbour(kClients4[who], r.br0(), client_mac(who), NUD_REACHABLE, 0);
		r.neighbour(kClients6[who], r.br0(), client_mac(who), NUD_REACHABLE, 0);
	}
}

// A flow to an address learnt from DNS: client a bits 3-4 (of kClients4,
// its query always over IPv4), the flow over IPv6 if a bit 2, to the
// name's server (a & 3 picks it) on port 443 if b bit 0, else 8443; the
// daemon's verdict (b >> 1) & 3; b bit 3 the server sends before the
// verdict; b bit 4 the clock moves by 2^16 ticks before the last packets;
// b bit 5 the name is the firmware update host, b bit 6 the answer comes
// twice; the bytes, if any, are the first data segment's payload.
void flow(sim::Router &r, sim::NetlinkPeer &daemon, uint8_t op, uint8_t a, uint8_t b, const uint8_t *p,
	  size_t n)
{
	bool v6 = a & 4;
	int who = (a >> 3) & 3;
	uint8_t srv = uint8_t(200 + (a & 3));
	std::string c4 = kClients4[who], c = v6 ? kClients6[who] : kClients4[who];
	std::string s = v6 ? server6(srv) : server4(srv);
	uint16_t port = (b & 1) ? 443 : 8443, cport = uint16_t(30000 + (g_sessions++ % 1024) * 8 + who);
	std::string nm = (b & 0x20) ? FW_UPDATE_HOST : "flow" + std::to_string(a & 3) + ".example";
	size_t linear = (op >> 3) & 3 ? (size_t)((op >> 3) & 3) * 20 : SIZE_MAX;
	sim::Mac mac = client_mac(who);
	auto up = [&](const sim::Bytes &ip) { r.forward(ip, r.br0(), r.wan(), mac, linear); };
	auto down = [&](const sim::Bytes &ip) { r.forward(ip, r.wan(), r.br0(), sim::kGatewayMac, linear); };
	up(fuzz::l4(true, c4.c_str(), fuzz::kResolver, 40001, 53, 0, 0, 0,
		    fuzz::dns_answer(nm, server4(srv).c_str(), server6(srv).c_str(), false)));
	for (int i = 0; i < ((b & 0x40) ? 2 : 1); i++)
		down(fuzz::l4(true, fuzz::kResolver, c4.c_str(), 53, 40001, 0, 0, 0,
			      fuzz::dns_answer(nm, server4(srv).c_str(), server6(srv).c_str(), true)));
	std::string hello = n ? std::string((const char *)p, n) : std::string("\x16\x03\x01\x00\x05hello", 10);
	up(fuzz::l4(false, c.c_str(), s.c_str(), cport, port, sim::SYN, 1, 0, ""));
	down(fuzz::l4(false, s.c_str(), c.c_str(), port, cport, sim::SYN | sim::ACK, 7, 2, ""));
	up(fuzz::l4(false, c.c_str(), s.c_str(), cport, port, sim::ACK, 2, 8, hello));
	if (b & 8)
		down(fuzz::l4(false, s.c_str(), c.c_str(), port, cport, sim::ACK, 8, 2 + hello.size(), "\x16\x03"));
	replies(daemon, (b >> 1) & 3, 0);
	if (b & 0x10)
		r.advance(0x10000);
	up(fuzz::l4(false, c.c_str(), s.c_str(), cport, port, sim::ACK, 2 + hello.size(), 8, "\x17\x03\x03"));
	down(fuzz::l4(false, s.c_str(), c.c_str(), port, cport, sim::ACK, 8, 5 + hello.size(), "\x17\x03\x03"));
	up(fuzz::l4(false, c.c_str(), s.c_str(), cport, port, sim::FIN | sim::ACK, 5 + hello.size(), 11, ""));
}

// A whole HTTP conversation with sequence numbers that follow: a bit 2
// IPv6, bits 0-1 the client's route (see kConv4), bits 3-5 the device
// (its MAC as for packets); b & 3 the verdict, b bits 2-3 IPv6 extension
// headers in front of TCP (none, hop-by-hop, destination options and a
// routing header, an atomic fragment), b bit 4 the request in two
// segments, b bit 5 the server sends before the client's next segment,
// b bit 6 the client closes with FIN instead of the bare ACKs, b bit 7
// the request is no HTTP (the bytes, or a line of text, instead of a GET:
// from the time-blocked device with PC alone it is blocked without the
// daemon); op bits 3-4 the linear part as for packets; the bytes, if
// any, are the host.
void conversation(sim::Router &r, sim::NetlinkPeer &daemon, uint8_t op, uint8_t a, uint8_t b,
		  const uint8_t *p, size_t n)
{
	bool v6 = a & 4;
	int route = a & 3, who = (a >> 3) & 7;
	const char *c = v6 ? kConv6[route] : kConv4[route];
	std::string s = v6 ? server6(who) : server4(who);
	uint16_t cport = uint16_t(45000 + (g_sessions++ % 2048) * 8 + who);
	std::string host = "c" + std::to_string(who) + ".example";
	if (n)
		host.assign((const char *)p, n);
	std::string req = "GET /p HTTP/1.1\r\nHost: " + host + "\r\nAccept: */*\r\n\r\n";
	if (b & 0x80)
		req = (n ? host : std::string("HELO there")) + "\r\n\r\n";
	size_t linear = (op >> 3) & 3 ? (size_t)((op >> 3) & 3) * 20 : SIZE_MAX;
	sim::Mac mac = client_mac(who);
	auto seg = [&](bool up, uint8_t flags, uint32_t seq, uint32_t ack, const std::string &pl) {
		sim::Bytes ip;
		if (!v6) {
			ip = fuzz::l4(false, up ? c : s.c_str(), up ? s.c_str() : c, up ? cport : 80, up ? 80 : cport,
				      flags, seq, ack, pl);
		} else {
			sim::Tcp t;
			t.sport = up ? cport : 80;
			t.dport = up ? 80 : cport;
			t.flags = flags;
			t.seq = seq;
			t.ack = ack;
			t.payload.assign(pl.begin(), pl.end());
			sim::Ip6 ip6;
			ip6.src = sim::ip6(up ? c : s.c_str());
			ip6.dst = sim::ip6(up ? s.c_str() : c);
			switch ((b >> 2) & 3) {
			case 1: ip6.ext.push_back({0, {1, 2, 0, 0}}); break;
			case 2:
				ip6.ext.push_back({60, {1, 0}});
				ip6.ext.push_back({43, {0, 0, 0, 0, 0, 0}});
				break;
			case 3: ip6.ext.push_back({44, sim::frag6_body(0, false, 0x1234 + who)}); break;
			default: break;
			}
			ip = sim::ip6_tcp(ip6, t);
		}
		if (up)
			r.forward(ip, r.br0(), r.wan(), mac, linear);
		else
			r.forward(ip, r.wan(), r.br0(), sim::kGatewayMac, linear);
	};
	const uint32_t cs = 1000, ss = 9000;
	uint32_t next = cs + 1 + (uint32_t)req.size();
	seg(true, sim::SYN, cs, 0, "");
	seg(false, sim::SYN | sim::ACK, ss, cs + 1, "");
	seg(true, sim::ACK, cs + 1, ss + 1, "");
	if (b & 0x10) {
		size_t half = req.size() / 2;
		seg(true, sim::PSH | sim::ACK, cs + 1, ss + 1, req.substr(0, half));
		seg(true, sim::PSH | sim::ACK, cs + 1 + (uint32_t)half, ss + 1, req.substr(half));
	} else {
		seg(true, sim::PSH | sim::ACK, cs + 1, ss + 1, req);
	}
	replies(daemon, b & 3, 0);
	if (b & 0x20)
		seg(false, sim::ACK, ss + 1, next, "HTTP/1.1 200 OK\r\n\r\n");
	seg(true, sim::ACK, next, ss + 1, "");
	seg(true, sim::ACK, next, ss + 1, "");
	seg(true, sim::ACK, next, ss + 2, "");
	if (b & 0x40)
		seg(true, sim::FIN | sim::ACK, next, ss + 2, "");
	seg(true, sim::FIN | sim::ACK, next, ss + 2, "");
	seg(false, sim::FIN | sim::ACK, ss + 2, next + 1, "");
}

// Requests the daemon has read in this input, oldest first (the last 64).
std::vector<sim::Bytes> g_requests;

// One reply to request q: verdict a & 3 (3 an unknown code); b bit 0 a
// short buffer (b bytes), bit 1 another kind (a), bit 2 another service,
// bit 3 sent twice, bit 4 a long address (511 characters), bit 6 an
// unterminated one (the address and the bytes behind it up to the
// reply's end, no NUL), bit 7 both ports zero (as in a flow's reply).
void reply(sim::NetlinkPeer &daemon, const sim::Bytes &q, uint8_t a, uint8_t b)
{
	struct rating_reply rep;
	memset(&rep, 0, sizeof(rep));
	memcpy(&rep, q.data(), std::min(q.size(), offsetof(struct rating_reply, verdict)));
	rep.kind = (b & 2) ? a : RATING_KIND_REPLY;
	rep.service += (b & 4) ? 3 : 1;
	static const u32 verdicts[] = {PASS, WHITE_PASS, BLOCK, 77};
	rep.verdict = verdicts[a & 3];
	if (b & 0x80)
		rep.src_port = rep.dst_port = 0;
	if (b & 0x40)
		memset(rep.redirect_url, 'u', sizeof(rep.redirect_url) + sizeof(rep.pad1));
	else if (b & 0x10)
		memset(rep.redirect_url, 'u', sizeof(rep.redirect_url) - 1);
	else
		strcpy(rep.redirect_url, "http://block.example/");
	size_t len = (b & 1) ? std::min<size_t>(b, sizeof(rep)) : sizeof(rep);
	for (int i = 0; i < ((b & 8) ? 2 : 1); i++)
		daemon.send(0, &rep, len);
}

// The daemon reads what the filter sent and replies (see reply()) to each
// new request or, with b bit 5, to the requests read so far that the
// bytes pick (each byte an index, modulo their number), old ones too.
void replies(sim::NetlinkPeer &daemon, uint8_t a, uint8_t b, const uint8_t *p, size_t n)
{
	std::vector<sim::Bytes> fresh = daemon.read_payloads();
	g_requests.insert(g_requests.end(), fresh.begin(), fresh.end());
	if (g_requests.size() > 64)
		g_requests.erase(g_requests.begin(), g_requests.end() - 64);
	if (!(b & 0x20)) {
		for (const sim::Bytes &q : fresh)
			reply(daemon, q, a, b);
		return;
	}
	for (size_t i = 0; i < n && !g_requests.empty(); i++)
		reply(daemon, g_requests[p[i] % g_requests.size()], a, b);
}

void check(void);

void burst(sim::Router &r, uint8_t b)
{
	for (unsigned i = 0; i < 120; i++) {
		unsigned k = g_sessions++ % 4096;
		std::string nm = "b" + std::to_string(k) + ".example";
		std::string v4 = "93.184." + std::to_string(100 + k / 250) + "." + std::to_string(1 + k % 250);
		std::string v6 = "2001:db8:3::" + std::to_string(k + 1);
		const char *c = kClients4[(b + i) & 3];
		r.forward(fuzz::l4(true, c, fuzz::kResolver, 40001, 53, 0, 0, 0,
				   fuzz::dns_answer(nm, v4.c_str(), v6.c_str(), false)),
			  r.br0(), r.wan(), client_mac((b + i) & 3));
		r.forward(fuzz::l4(true, fuzz::kResolver, c, 53, 40001, 0, 0, 0,
				   fuzz::dns_answer(nm, v4.c_str(), v6.c_str(), true)),
			  r.wan(), r.br0(), sim::kGatewayMac);
	}
}

// One step of the load fails: c bits 0-1 choose a kmalloc, a control
// file's creation, a hook's registration or the netlink socket, bits 2-7
// which of them (1 to 64). 0 disarms them all.
void failing_load(uint8_t c)
{
	long nth = c ? (c >> 2) + 1 : 0;
	kmodel_fail_alloc_nth((c & 3) == 0 ? nth : 0);
	kmodel_fail_proc_create_nth((c & 3) == 1 ? nth : 0);
	kmodel_fail_nf_register_nth((c & 3) == 2 ? nth : 0, -EBUSY);
	kmodel_fail_netlink_create_nth((c & 3) == 3 ? nth : 0);
}

void check(void)
{
	if (invariants::tables() || invariants::buffers())
		abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	if (size < 1)
		return 0;
	{
		sim::Router r;
		sim::NetlinkPeer daemon;
		g_sessions = 0;
		g_requests.clear();
		size_t pos = 1;
		bool inject = (data[0] & 0xc0) == 0xc0 && size >= 2;
		if (inject) {
			failing_load(data[1]);
			pos = 2;
		}
		bool loaded = fuzz::boot(r, data[0]);
		failing_load(0);
		if (!loaded && !inject)
			abort();
		if (!loaded)
			goto done;
		r.route("2001:db8::/32", r.wan(), KMODEL_OUT_HH, &sim::kGatewayMac);
		r.write_proc("tblock_proc", "add 00:11:22:33:44:55\n");
		r.write_proc("unblock_proc", "+|00:11:22:33:44:56");
		conversation_routes(r);
		while (pos + 4 <= size) {
			uint8_t op = data[pos], a = data[pos + 1], b = data[pos + 2];
			size_t n = std::min<size_t>(data[pos + 3], size - pos - 4);
			const uint8_t *p = data + pos + 4;
			pos += 4 + n;
			switch (op & 7) {
			case 0: packet(r, op, a, b, p, n); break;
			case 1: {
				if (a & 0x80) {
					burst(r, b);
					break;
				}
				std::string dns = fuzz::dns_answer(name(a), server4(b).c_str(), server6(b).c_str(), true);
				sim::Bytes ip = fuzz::l4(true, fuzz::kResolver, fuzz::kClient, 53, 40001, 0, 0, 0, dns);
				r.forward(ip, r.wan(), r.br0(), sim::kGatewayMac);
				break;
			}
			case 2: replies(daemon, a, b, p, n); break;
			case 3: kmodel_proc_write(kFiles[a & 3], p, n); break;
			case 4: r.advance(a == 255 ? 0x80000000u : a * 256u + b); break;
			case 5:
				if (a & 0x80)
					flow(r, daemon, op, a, b, p, n);
				else
					r.conntrack_expire_all();
				break;
			case 6:
				if (b & 1)
					kmodel_fail_skb_alloc_nth(a % 8 + 1);
				else
					kmodel_fail_alloc_nth(a % 8 + 1);
				break;
			default:
				if (a & 0x80) {
					conversation(r, daemon, op, a, b, p, n);
					break;
				}
				r.write_proc("wl_warning_page", (a & 1) ? "1\n" : "0\n");
				r.write_proc("pcg_proc", (a & 2) ? "1\n" : "0\n");
			}
			check();
		}
		kmodel_fail_alloc_nth(0);
		kmodel_fail_skb_alloc_nth(0);
		r.unload();
	}
done:
	kmodel_free_all();
	kmodel_reset();
	return 0;
}
