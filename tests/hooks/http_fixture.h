#pragma once
// HTTP conversations on the simulated router: a client behind br0 (or
// br1), a server behind the WAN, and a scripted rating daemon on the
// netlink channel. Every packet goes through the router's whole hook
// traversal; what the filter forges is read from the router's
// transmissions.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "kmodel/host.h"
#include "kmodel/net.h"
#include "sim/netlink_peer.h"
#include "sim/packet.h"
#include "sim/router.h"

#include "core/rating.h"
#include "track/tcp_table.h"

namespace http_test {

using sim::Bytes;
using Lines = std::vector<std::string>;

inline const uint32_t kClient = sim::ip4("192.168.1.10");
inline const uint32_t kClientBr1 = sim::ip4("192.168.2.10");
inline const uint32_t kServer = sim::ip4("93.184.216.34");
inline const sim::Addr6 kClient6 = sim::ip6("2001:db8:1::10");
inline const sim::Addr6 kServer6 = sim::ip6("2001:db8:2::80");
inline const char kBlockUrl[] = "http://block.example/deny?c=7";

// One TCP connection; each side's sequence number moves with what it sends.
struct Conn {
	bool v6 = false;
	uint32_t client = kClient, server = kServer;
	sim::Addr6 client6 = kClient6, server6 = kServer6;
	uint16_t cport = 40000, sport = 80;
	uint32_t cseq = 0xfffffff0, sseq = 0x10000000; // the client's wraps

	Bytes packet(bool from_client, uint8_t flags, const std::string &payload)
	{
		sim::Tcp t;
		uint32_t &seq = from_client ? cseq : sseq;
		t.sport = from_client ? cport : sport;
		t.dport = from_client ? sport : cport;
		t.seq = seq;
		t.ack = (flags & sim::ACK) ? (from_client ? sseq : cseq) : 0;
		t.flags = flags;
		t.payload.assign(payload.begin(), payload.end());
		seq += payload.size() + ((flags & (sim::SYN | sim::FIN)) ? 1 : 0);
		if (v6) {
			sim::Ip6 ip;
			ip.src = from_client ? client6 : server6;
			ip.dst = from_client ? server6 : client6;
			return sim::ip6_tcp(ip, t);
		}
		sim::Ip4 ip;
		ip.src = from_client ? client : server;
		ip.dst = from_client ? server : client;
		return sim::ip4_tcp(ip, t);
	}
	Bytes up(uint8_t flags, const std::string &payload = "") { return packet(true, flags, payload); }
	Bytes down(uint8_t flags, const std::string &payload = "") { return packet(false, flags, payload); }
};

inline std::string get_request(const std::string &host, const std::string &path = "/")
{
	return "GET " + path + " HTTP/1.1\r\nHost: " + host + "\r\nUser-Agent: test\r\n\r\n";
}

// The rating daemon: reads requests, answers with echoed header fields.
class Daemon {
public:
	std::vector<rating_request> requests()
	{
		std::vector<rating_request> out;
		for (const Bytes &p : peer.read_payloads()) {
			EXPECT_EQ(sizeof(rating_request), p.size());
			rating_request r;
			memset(&r, 0, sizeof(r));
			memcpy(&r, p.data(), std::min(p.size(), sizeof(r)));
			out.push_back(r);
		}
		return out;
	}
	void reply(const rating_request &req, uint32_t verdict, const char *url = kBlockUrl,
		   uint32_t service = 0)
	{
		rating_reply r;
		memset(&r, 0, sizeof(r));
		memcpy(&r, &req, 48); // header fields echoed
		r.kind = RATING_KIND_REPLY;
		r.service = service ? service : req.service + 1;
		r.verdict = verdict;
		strncpy(r.redirect_url, url, sizeof(r.redirect_url) - 1);
		send(r);
	}
	void send(const rating_reply &r) { ASSERT_EQ(int(16 + sizeof(r)), peer.send(0, &r, sizeof(r))); }

	sim::NetlinkPeer peer;
};

class HttpScenario : public ::testing::Test {
protected:
	void SetUp() override
	{
		ASSERT_EQ(0, r.load());
		r.route("192.168.1.0/24", r.br0(), KMODEL_OUT_HH, &sim::kClientMac);
		r.route("192.168.2.0/24", r.br1(), KMODEL_OUT_HH, &sim::kClientMac);
		r.route("93.184.216.0/24", r.wan(), KMODEL_OUT_HH, &sim::kGatewayMac);
		r.route("2001:db8:1::/64", r.br0(), KMODEL_OUT_HH, &sim::kClientMac);
		r.route("2001:db8:2::/64", r.wan(), KMODEL_OUT_HH, &sim::kGatewayMac);
		lan = r.br0();
	}

	void TearDown() override
	{
		r.unload();
	}

	void services(bool wp, bool pc)
	{
		ASSERT_EQ(2, r.write_proc("wl_warning_page", wp ? "1\n" : "0\n"));
		ASSERT_EQ(2, r.write_proc("pcg_proc", pc ? "1\n" : "0\n"));
		kmodel_log_clear();
		r.clear_sent();
	}

	// Client to server, and back.
	sim::Verdict up(const Bytes &p, const sim::Mac &mac = sim::kClientMac)
	{
		return r.forward(p, lan, r.wan(), mac);
	}
	sim::Verdict down(const Bytes &p) { return r.forward(p, r.wan(), lan, sim::kGatewayMac); }

	void handshake(Conn &c)
	{
		ASSERT_TRUE(up(c.up(sim::SYN)).accepted());
		ASSERT_TRUE(down(c.down(sim::SYN | sim::ACK)).accepted());
		ASSERT_TRUE(up(c.up(sim::ACK)).accepted());
	}

	// The packets the filter transmitted toward the clients (LAN
	// addresses 192.168.0.0/16, 2001:db8:1::/48) or the servers, IP
	// packets only. The device is not looked at: a replayed request keeps
	// the device it came in on.
	std::vector<Bytes> sent_toward(bool client)
	{
		std::vector<Bytes> out;
		for (const kmodel_tx &tx : r.sent()) {
			Bytes ip(tx.frame.begin() + 14, tx.frame.end());
			bool v6 = (ip[0] >> 4) == 6;
			bool lan = v6 ? (ip[24] == 0x20 && ip[25] == 0x01 && ip[26] == 0x0d && ip[27] == 0xb8 &&
					 ip[28] == 0 && ip[29] == 1)
				      : (ip[16] == 192 && ip[17] == 168);
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

	static size_t free_slots(struct tcp_table_block *t)
	{
		size_t n = 0;
		for (struct list_head *pos = t->pool.free_list.next; pos != &t->pool.free_list; pos = pos->next)
			n++;
		return n;
	}

	sim::Router r;
	Daemon daemon;
	struct net_device *lan;
};

// The redirect the client must receive for a request segment, built
// independently of the filter: server to client, sequence = the request's
// acknowledgement, acknowledgement = its sequence + payload, PSH+ACK,
// window bytes 0xFF 0x7F, TTL 255, no DF, identification 0.
inline Bytes expected_redirect(const Conn &before, const std::string &request, const char *url)
{
	sim::Tcp t;
	t.sport = before.sport;
	t.dport = before.cport;
	t.seq = before.sseq;
	t.ack = before.cseq + request.size();
	t.flags = sim::PSH | sim::ACK;
	t.window = 0xff7f;
	std::string page = std::string("HTTP/1.1 302 Found\r\nLocation: ") + url +
			   "\r\nContent-Length: 0\r\nContent-Type: text/html\r\n\r\n";
	t.payload.assign(page.begin(), page.end());
	if (before.v6) {
		sim::Ip6 ip;
		ip.src = before.server6;
		ip.dst = before.client6;
		return sim::ip6_tcp(ip, t);
	}
	sim::Ip4 ip;
	ip.src = before.server;
	ip.dst = before.client;
	ip.ttl = 255;
	ip.id = 0;
	ip.frag = 0;
	return sim::ip4_tcp(ip, t);
}

// A bare segment forged by the filter, built independently.
inline Bytes expected_bare(const Conn &c, bool to_client, uint8_t flags, uint32_t seq, uint32_t ack,
			   uint16_t window = 29200)
{
	sim::Tcp t;
	t.sport = to_client ? c.sport : c.cport;
	t.dport = to_client ? c.cport : c.sport;
	t.seq = seq;
	t.ack = ack;
	t.flags = flags;
	t.window = window;
	if (c.v6) {
		sim::Ip6 ip;
		ip.src = to_client ? c.server6 : c.client6;
		ip.dst = to_client ? c.client6 : c.server6;
		return sim::ip6_tcp(ip, t);
	}
	sim::Ip4 ip;
	ip.src = to_client ? c.server : c.client;
	ip.dst = to_client ? c.client : c.server;
	ip.ttl = 255;
	ip.id = 0;
	ip.frag = 0x4000;
	return sim::ip4_tcp(ip, t);
}

// The 576 bytes of the request an HTTP connection must produce, written
// field by field at their offsets.
inline Bytes expected_request(const Conn &c, uint32_t service, const std::string &url,
			      const std::string &host, const sim::Mac *mac)
{
	Bytes b(576, 0);
	auto put32 = [&](size_t off, uint32_t v) { memcpy(&b[off], &v, 4); };
	put32(0, 0);
	put32(4, service);
	uint16_t fam = c.v6 ? 10 : 2;
	memcpy(&b[8], &fam, 2);
	if (c.v6) {
		memcpy(&b[12], c.client6.data(), 16);
		memcpy(&b[28], c.server6.data(), 16);
	} else {
		memcpy(&b[12], &c.client, 4);
		memcpy(&b[28], &c.server, 4);
	}
	b[44] = c.cport >> 8;
	b[45] = c.cport & 0xff;
	b[46] = c.sport >> 8;
	b[47] = c.sport & 0xff;
	memcpy(&b[48], url.data(), url.size());
	memcpy(&b[308], host.data(), host.size());
	if (mac)
		memcpy(&b[568], mac->data(), 6);
	return b;
}

inline Bytes bytes_of(const rating_request &r)
{
	return Bytes((const uint8_t *)&r, (const uint8_t *)&r + sizeof(r));
}

} // namespace http_test
