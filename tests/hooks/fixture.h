#pragma once
// The simulated router with the filter loaded: LAN clients behind br0 (or
// br1), servers behind the WAN, a scripted rating daemon on the netlink
// channel. Every packet goes through the router's whole hook traversal;
// what the filter forges is read from the router's transmissions. The
// expected requests and forged segments are written from the wire layout,
// not from the filter's structs; the table views read the filter's tables.
#include <gtest/gtest.h>

#include <arpa/inet.h>

#include <cstring>
#include <string>
#include <vector>

#include "kmodel/host.h"
#include "kmodel/net.h"
#include "linux/list.h"
#include "linux/netfilter.h"
#include "sim/conversation.h"
#include "sim/netlink_peer.h"
#include "sim/packet.h"
#include "sim/pcap.h"
#include "sim/router.h"

#include "core/rating.h"
#include "track/dns_table.h"
#include "track/pct_table.h"
#include "track/ssl_table.h"
#include "track/tcp_table.h"

namespace hooks_test {

using sim::Bytes;
using Lines = std::vector<std::string>;

inline const char *const kClient = "192.168.1.10", *const kClient2 = "192.168.1.20";
inline const char *const kResolver = "8.8.8.8", *const kServer = "93.184.216.34";
inline const sim::Mac kClient2Mac = { 0x00, 0x11, 0x22, 0x33, 0x44, 0x66 };
inline const sim::Addr6 kClient6 = sim::ip6("2001:db8:1::10"), kServer6 = sim::ip6("2001:db8:2::80");
inline const char kBlockUrl[] = "http://block.example/deny?c=7";

// ---- packets between addresses given as text (IPv6 when they hold ':') ----
inline Bytes tcp(const char *src, const char *dst, uint16_t sport, uint16_t dport, uint8_t flags = sim::ACK,
		 const Bytes &payload = {}, bool udp = false)
{
	sim::Tcp t;
	t.sport = sport, t.dport = dport, t.flags = flags, t.payload = payload;
	return sim::l4_packet(udp, src, dst, t);
}
inline Bytes udp(const char *src, const char *dst, uint16_t sport, uint16_t dport, const Bytes &payload)
{
	return tcp(src, dst, sport, dport, 0, payload, true);
}

// One TCP connection between the first client and the server; the
// client's sequence number wraps early in the conversation.
struct Conn : sim::Conversation {
	explicit Conn(uint16_t port = 40000, bool six = false)
	{
		client = sim::ip4(kClient), server = sim::ip4(kServer);
		client6 = kClient6, server6 = kServer6;
		cseq = 0xfffffff0, sseq = 0x10000000;
		cport = port, v6 = six;
	}
};

inline Conn conn(uint16_t cport, bool v6 = false) { return Conn(cport, v6); }

// A segment the filter forged, built independently of it: TTL 255,
// identification 0 and DF over IPv4, except that the block page goes
// without DF.
inline Bytes forged(const Conn &c, bool to_client, uint8_t flags, uint32_t seq, uint32_t ack,
		    const std::string &payload = "", uint16_t window = 29200)
{
	sim::Tcp t;
	t.seq = seq, t.ack = ack, t.flags = flags, t.window = window;
	t.payload.assign(payload.begin(), payload.end());
	sim::Ip4 ip;
	ip.ttl = 255, ip.id = 0, ip.frag = payload.empty() ? 0x4000 : 0;
	return c.segment(!to_client, t, ip);
}


inline std::string get_request(const std::string &host, const std::string &path = "/")
{
	return "GET " + path + " HTTP/1.1\r\nHost: " + host + "\r\nUser-Agent: test\r\n\r\n";
}

// The redirect for a request segment: server to client, sequence = the
// request's acknowledgement, acknowledgement = its sequence + payload,
// PSH+ACK, window bytes 0xFF 0x7F.
inline Bytes expected_redirect(const Conn &before, const std::string &request, const char *url)
{
	return forged(before, true, sim::PSH | sim::ACK, before.sseq, before.cseq + request.size(),
		      std::string("HTTP/1.1 302 Found\r\nLocation: ") + url +
			      "\r\nContent-Length: 0\r\nContent-Type: text/html\r\n\r\n",
		      0xff7f);
}

// ---- DNS messages ----
using sim::dns_query;
using sim::dns_response;
inline Bytes addr(const char *text) { return sim::addr_bytes(text); }

// The captured traffic (tests/data/dns.pcap: dig and wget against dnsmasq;
// client 10.53.0.2 / fd00:53::2, server 10.53.0.1 / fd00:53::1): whole
// Ethernet frames, frame n at index n - 1.
inline const std::vector<Bytes> &dns_capture()
{
	static std::vector<Bytes> frames;
	sim::PcapLink link;
	if (frames.empty() &&
	    (!sim::pcap_read(std::string(DNSHOOK_SOURCE_DIR) + "/tests/data/dns.pcap", &frames, &link) ||
	     link != sim::PCAP_ETHERNET))
		frames.clear();
	return frames;
}

// ---- rating requests ----
struct Expected {
	uint32_t service;
	uint16_t family;       // 0: not filled
	Bytes src, dst;        // 4 or 16 bytes; empty: all zero
	std::string url, host;
	sim::Mac mac{};        // all zero: not filled
	uint16_t sport = 0, dport = 0;
};

// The 576 bytes the filter should send: the filled fields at their wire
// offsets, every other byte zero.
inline Bytes expected_request(const Expected &e)
{
	Bytes b(576, 0);
	memcpy(&b[4], &e.service, 4);
	memcpy(&b[8], &e.family, 2);
	std::copy(e.src.begin(), e.src.end(), b.begin() + 12);
	std::copy(e.dst.begin(), e.dst.end(), b.begin() + 28);
	b[44] = e.sport >> 8, b[45] = e.sport & 0xff, b[46] = e.dport >> 8, b[47] = e.dport & 0xff;
	std::copy(e.url.begin(), e.url.end(), b.begin() + 48);
	std::copy(e.host.begin(), e.host.end(), b.begin() + 308);
	std::copy(e.mac.begin(), e.mac.end(), b.begin() + 568);
	return b;
}

// What an HTTP connection's request must hold.
inline Expected http_request(const Conn &c, uint32_t service, const std::string &url, const std::string &host,
			     const sim::Mac *mac)
{
	auto b4 = [](const uint32_t &a) { return Bytes((const uint8_t *)&a, (const uint8_t *)&a + 4); };
	Bytes src = c.v6 ? Bytes(c.client6.begin(), c.client6.end()) : b4(c.client);
	Bytes dst = c.v6 ? Bytes(c.server6.begin(), c.server6.end()) : b4(c.server);
	return { service, uint16_t(c.v6 ? 10 : 2), src, dst, url, host, mac ? *mac : sim::Mac{}, c.cport, c.sport };
}

// The daemon's reply about a flow; an address of zeros is "0.0.0.0" or "::".
inline rating_reply flow_reply(uint32_t service, const char *src, const char *dst, uint32_t verdict)
{
	rating_reply r = {};
	Bytes s = addr(src), d = addr(dst);
	r.kind = RATING_KIND_REPLY, r.service = service, r.verdict = verdict;
	r.family = d.size() == 16 ? RATING_FAMILY_INET6 : RATING_FAMILY_INET;
	memcpy(r.src_addr.raw, s.data(), s.size());
	memcpy(r.dst_addr.raw, d.data(), d.size());
	return r;
}

inline Bytes bytes(const rating_request &r) { return Bytes((const uint8_t *)&r, (const uint8_t *)&r + sizeof(r)); }
inline std::string hex(const rating_request &r) { return sim::hex(bytes(r)); }

// ---- the tables, records in use, least recently refreshed first ----
struct PctView {
	std::string addr, host; // dotted or IPv6 text
	int state, keep;
	bool operator==(const PctView &) const = default;
};
struct SslView {
	std::string client, server, host;
	int state, trust;
	bool operator==(const SslView &) const = default;
};
struct DnsView {
	std::string name, client;
	int state, addrs; // addrs: slots with a family
	bool operator==(const DnsView &) const = default;
};

inline std::string text(const void *a, bool v6 = false)
{
	char s[INET6_ADDRSTRLEN];
	inet_ntop(v6 ? AF_INET6 : AF_INET, a, s, sizeof(s));
	return s;
}

template <typename Rec, typename View, typename Block, typename F>
std::vector<View> walk(Block *t, F f)
{
	std::vector<View> v;
	struct list_head *pos;
	if (t)
		list_for_each(pos, &t->pool.age_list) v.push_back(f(container_of(pos, Rec, node.age_link)));
	return v;
}

inline std::vector<PctView> pct_records()
{
	return walk<pct_tracking, PctView>(
		pct_table, [](pct_tracking *r) { return PctView{ text(&r->addr), r->host, r->state, r->keep }; });
}
inline std::vector<PctView> pct6_records()
{
	return walk<pct6_tracking, PctView>(pct6_table, [](pct6_tracking *r) {
		return PctView{ text(r->addr6, true), r->host, r->state, r->keep };
	});
}
inline std::vector<SslView> ssl_records()
{
	return walk<ssl_tracking, SslView>(ssl_table, [](ssl_tracking *r) {
		return SslView{ text(&r->client), text(&r->server), r->host, r->state, r->trust };
	});
}
inline std::vector<SslView> ssl6_records()
{
	return walk<ssl6_tracking, SslView>(ssl6_table, [](ssl6_tracking *r) {
		return SslView{ text(r->client, true), text(r->server, true), r->host, r->state, r->trust };
	});
}
inline std::vector<DnsView> dns_records()
{
	return walk<dns_entry, DnsView>(dns_table, [](dns_entry *e) {
		int n = 0;
		for (auto &a : e->addrs)
			n += a.family != 0;
		return DnsView{ e->name, text(&e->client), e->state, n };
	});
}

inline size_t free_slots(struct tcp_table_block *t)
{
	size_t n = 0;
	for (struct list_head *pos = t->pool.free_list.next; pos != &t->pool.free_list; pos = pos->next)
		n++;
	return n;
}

// ---- the router ----
class HookTest : public ::testing::Test {
public:
	void SetUp() override
	{
		ASSERT_EQ(0, r.load());
		r.route("192.168.1.0/24", r.br0(), KMODEL_OUT_HH, &sim::kClientMac);
		r.route("192.168.2.0/24", r.br1(), KMODEL_OUT_HH, &sim::kClientMac);
		r.route("93.184.216.0/24", r.wan(), KMODEL_OUT_HH, &sim::kGatewayMac);
		r.route("2001:db8:1::/64", r.br0(), KMODEL_OUT_HH, &sim::kClientMac);
		r.route("2001:db8:2::/64", r.wan(), KMODEL_OUT_HH, &sim::kGatewayMac);
		lan = r.br0();
		kmodel_log_clear();
	}
	void TearDown() override { r.unload(); }

	// The switch files' own lines and packets are not what the tests look at.
	void services(bool wp, bool pc)
	{
		ASSERT_EQ(2, r.write_proc("wl_warning_page", wp ? "1\n" : "0\n"));
		ASSERT_EQ(2, r.write_proc("pcg_proc", pc ? "1\n" : "0\n"));
		kmodel_log_clear();
		r.clear_sent();
	}

	// From the LAN out to the WAN, and back; whole frames either way.
	sim::Verdict up(const Bytes &p, const sim::Mac &mac = sim::kClientMac) { return r.forward(p, lan, r.wan(), mac); }
	sim::Verdict down(const Bytes &p) { return r.forward(p, r.wan(), lan, sim::kGatewayMac); }
	sim::Verdict frame(const Bytes &f, bool from_lan)
	{
		return from_lan ? r.forward_frame(f, r.br0(), r.wan()) : r.forward_frame(f, r.wan(), r.br0());
	}
	static bool dropped(const sim::Verdict &v) { return v.verdict == NF_DROP && v.hook == NF_INET_FORWARD; }

	void handshake(Conn &c, const sim::Mac &mac = sim::kClientMac)
	{
		ASSERT_TRUE(up(c.up(sim::SYN), mac).accepted());
		ASSERT_TRUE(down(c.down(sim::SYN | sim::ACK)).accepted());
		ASSERT_TRUE(up(c.up(sim::ACK), mac).accepted());
	}
	void resolve(const char *name, std::vector<const char *> v4, std::vector<const char *> v6 = {},
		     const char *client = kClient)
	{
		up(udp(client, kResolver, 40001, 53, dns_query(1, name)));
		down(udp(kResolver, client, 53, 40001, dns_response(1, name, v4, v6)));
	}
	// Frames of the capture: odd ones are dig's queries, even ones dnsmasq's answers.
	void feed(std::initializer_list<int> frames)
	{
		ASSERT_FALSE(dns_capture().empty()) << "tests/data/dns.pcap missing";
		for (int n : frames)
			ASSERT_TRUE(frame(dns_capture().at(n - 1), n % 2 == 1).accepted()) << "frame " << n;
	}

	// The packets the filter transmitted toward the clients (LAN
	// addresses 192.168.0.0/16, 2001:db8:1::/48) or the servers.
	std::vector<Bytes> sent_toward(bool client)
	{
		static const uint8_t lan6[6] = { 0x20, 0x01, 0x0d, 0xb8, 0, 1 };
		std::vector<Bytes> out;
		for (const kmodel_tx &tx : r.sent()) {
			Bytes ip(tx.frame.begin() + 14, tx.frame.end());
			bool lan = (ip[0] >> 4) == 6 ? !memcmp(&ip[24], lan6, 6) : (ip[16] == 192 && ip[17] == 168);
			if (lan == client)
				out.push_back(ip);
		}
		return out;
	}
	std::vector<Bytes> to_client() { return sent_toward(true); }
	std::vector<Bytes> to_server() { return sent_toward(false); }

	struct tcp_tracking *record(const Conn &c)
	{
		Conn probe = c;
		Bytes p = probe.up(sim::ACK);
		if (c.v6)
			return tcp_find6((const struct ipv6hdr *)p.data(), (const struct tcphdr *)(p.data() + 40));
		return tcp_find((const struct iphdr *)p.data(), (const struct tcphdr *)(p.data() + 20));
	}

	// The daemon: the requests received since the last look, its replies
	// (the request's header fields echoed, kind 1, the service plus one).
	// Every request travels in one 592-byte message of type 0 to group 1.
	std::vector<rating_request> requests()
	{
		std::vector<rating_request> out;
		for (const kmodel_nl_msg &m : peer.read()) {
			const Bytes want_header = { 0x50, 0x02, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0 };
			EXPECT_EQ(16 + sizeof(rating_request), m.bytes.size());
			EXPECT_EQ(1u, m.dst_group);
			if (m.bytes.size() < 16)
				continue;
			EXPECT_EQ(sim::hex(want_header), sim::hex(Bytes(m.bytes.begin(), m.bytes.begin() + 16)));
			rating_request q = {};
			memcpy(&q, m.bytes.data() + 16, std::min(m.bytes.size() - 16, sizeof(q)));
			out.push_back(q);
		}
		return out;
	}
	// Exactly one request since the last look, with these bytes.
	rating_request rated(const Expected &want)
	{
		auto reqs = requests();
		EXPECT_EQ(1u, reqs.size());
		if (reqs.empty())
			return rating_request{};
		EXPECT_EQ(sim::hex(expected_request(want)), hex(reqs[0]));
		return reqs[0];
	}
	static rating_reply answer(const rating_request &req, uint32_t verdict, const char *url = "")
	{
		rating_reply a = {};
		memcpy(&a, &req, 48);
		a.kind = RATING_KIND_REPLY;
		a.service = req.service + 1;
		a.verdict = verdict;
		strncpy(a.redirect_url, url, sizeof(a.redirect_url) - 1);
		return a;
	}
	void reply(const rating_request &req, uint32_t verdict, const char *url = "") { send(answer(req, verdict, url)); }
	void send(const rating_reply &a) { ASSERT_EQ(int(16 + sizeof(a)), peer.send(0, &a, sizeof(a))); }

	sim::Router r;
	sim::NetlinkPeer peer;
	struct net_device *lan;
};

} // namespace hooks_test
