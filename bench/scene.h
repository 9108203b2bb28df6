#pragma once
// A simulated router for the packet-path benchmark: the filter loaded with
// the chosen services, or accept-all hooks of our own at the same points
// and priorities (the baseline), or no hooks at all (the empty chain that
// is subtracted from both). LAN client behind br0, servers behind the WAN,
// a scripted rating daemon on the netlink channel that passes everything.
#include <arpa/inet.h>

#include <climits>
#include <cstring>
#include <string>
#include <vector>

#include "kmodel/host.h"
#include "kmodel/net.h"
#include "linux/netfilter.h"
#include "sim/conversation.h"
#include "sim/netlink_peer.h"
#include "sim/packet.h"
#include "sim/router.h"

#include "core/rating.h"

namespace bench {

using sim::Bytes;

inline const char *const kClient = "192.168.1.10", *const kResolver = "8.8.8.8";
inline const char *const kServer = "93.184.216.34";

enum class Chain { Filter, AcceptAll, Empty };

inline unsigned accept_all(unsigned, struct sk_buff *, const struct net_device *, const struct net_device *,
			   int (*)(struct sk_buff *))
{
	return NF_ACCEPT;
}

// Both families: the HTTP, non-HTTP and HTTPS points at FORWARD and the
// DNS point at PRE_ROUTING, as the filter registers them.
inline nf_hook_ops g_accept_ops[] = {
	{ {}, accept_all, nullptr, PF_INET, NF_INET_PRE_ROUTING, INT_MIN },
	{ {}, accept_all, nullptr, PF_INET6, NF_INET_PRE_ROUTING, INT_MIN },
	{ {}, accept_all, nullptr, PF_INET, NF_INET_FORWARD, INT_MIN },
	{ {}, accept_all, nullptr, PF_INET6, NF_INET_FORWARD, INT_MIN },
	{ {}, accept_all, nullptr, PF_INET, NF_INET_FORWARD, INT_MIN + 1 },
	{ {}, accept_all, nullptr, PF_INET6, NF_INET_FORWARD, INT_MIN + 1 },
	{ {}, accept_all, nullptr, PF_INET, NF_INET_FORWARD, INT_MIN + 2 },
	{ {}, accept_all, nullptr, PF_INET6, NF_INET_FORWARD, INT_MIN + 2 },
};

using sim::put16;
using sim::put_dns_name;

using sim::dns_query;

// A browser's view of a CDN name: the question, a CNAME to the edge name
// (compressed against the question) and four A records of the edge name.
inline Bytes dns_cname_response(uint16_t id, const std::string &name, const std::string &edge_label)
{
	Bytes b = dns_query(id, name);
	b[2] = 0x81, b[3] = 0x80;
	b[7] = 5;
	Bytes target;
	put_dns_name(target, edge_label);
	target.pop_back(); // continued by a pointer to the question's name
	uint16_t cname_at = uint16_t(b.size() + 12);
	for (uint16_t v : { uint16_t(0xc00c), uint16_t(5), uint16_t(1), uint16_t(0), uint16_t(300),
			    uint16_t(target.size() + 2) })
		put16(b, v);
	b.insert(b.end(), target.begin(), target.end());
	put16(b, 0xc00c);
	for (int i = 1; i <= 4; i++) {
		for (uint16_t v : { uint16_t(0xc000 | cname_at), uint16_t(1), uint16_t(1), uint16_t(0), uint16_t(60),
				    uint16_t(4) })
			put16(b, v);
		b.insert(b.end(), { 93, 184, 216, uint8_t(30 + i) });
	}
	return b;
}

inline Bytes udp(const char *src, const char *dst, uint16_t sport, uint16_t dport, const Bytes &payload)
{
	sim::Ip4 ip;
	ip.src = sim::ip4(src);
	ip.dst = sim::ip4(dst);
	sim::Udp u;
	u.sport = sport;
	u.dport = dport;
	u.payload = payload;
	return sim::ip4_udp(ip, u);
}

// One TCP connection from the client to a server.
struct Conn : sim::Conversation {
	Conn(uint16_t client_port = 40000, uint16_t server_port = 80, const char *server_addr = kServer)
	{
		client = sim::ip4(kClient), server = sim::ip4(server_addr);
		cport = client_port, sport = server_port;
	}
};

// A request as a current desktop browser sends it: about 400 bytes.
inline std::string browser_request(const std::string &host, const std::string &path)
{
	return "GET " + path + " HTTP/1.1\r\nHost: " + host +
	       "\r\nUser-Agent: Mozilla/5.0 (X11; Linux x86_64; rv:109.0) Gecko/20100101 Firefox/115.0\r\n"
	       "Accept: text/html,application/xhtml+xml,application/xml;q=0.9,image/avif,image/webp,*/*;q=0.8\r\n"
	       "Accept-Language: en-US,en;q=0.5\r\nAccept-Encoding: gzip, deflate\r\nConnection: keep-alive\r\n"
	       "Upgrade-Insecure-Requests: 1\r\n\r\n";
}

class Scene {
public:
	Scene(Chain chain, bool wp, bool pc) : chain_(chain)
	{
		r.route("192.168.1.0/24", r.br0(), KMODEL_OUT_HH, &sim::kClientMac);
		r.route("93.184.216.0/24", r.wan(), KMODEL_OUT_HH, &sim::kGatewayMac);
		r.route("8.8.8.0/24", r.wan(), KMODEL_OUT_HH, &sim::kGatewayMac);
		if (chain == Chain::Filter) {
			r.load();
			r.write_proc("wl_warning_page", wp ? "1\n" : "0\n");
			r.write_proc("pcg_proc", pc ? "1\n" : "0\n");
		} else if (chain == Chain::AcceptAll) {
			// With both services off only the HTTP and DNS points are hooked.
			size_t n = (wp || pc) ? std::size(g_accept_ops) : 4;
			for (size_t i = 0; i < n; i++)
				nf_register_hook(&g_accept_ops[i]);
			registered_ = n;
		}
		kmodel_log_clear();
	}
	~Scene()
	{
		for (size_t i = 0; i < registered_; i++)
			nf_unregister_hook(&g_accept_ops[i]);
	}
	Scene(const Scene &) = delete;
	Scene &operator=(const Scene &) = delete;

	Chain chain() const { return chain_; }
	sim::Verdict up(const Bytes &p) { return r.forward(p, r.br0(), r.wan()); }
	sim::Verdict down(const Bytes &p) { return r.forward(p, r.wan(), r.br0(), sim::kGatewayMac); }

	// The daemon passes every request it has received.
	// Requests received so far are kept until pass_all answers them.
	size_t collect()
	{
		size_t before = inbox_.size();
		for (Bytes &p : peer.read_payloads())
			inbox_.push_back(std::move(p));
		return inbox_.size() - before;
	}
	int pass_all()
	{
		int n = 0;
		collect();
		std::vector<Bytes> reqs;
		reqs.swap(inbox_);
		for (const Bytes &p : reqs) {
			rating_request q = {};
			memcpy(&q, p.data(), std::min(p.size(), sizeof(q)));
			peer.send(0, &pass_reply(q), sizeof(rating_reply));
			n++;
		}
		return n;
	}
	rating_reply &pass_reply(const rating_request &q)
	{
		reply_ = {};
		memcpy(&reply_, &q, 48);
		reply_.kind = RATING_KIND_REPLY;
		reply_.service = q.service + 1;
		reply_.verdict = PASS;
		return reply_;
	}
	void resolve(const std::string &name, uint16_t id)
	{
		up(udp(kClient, kResolver, 40001, 53, dns_query(id, name)));
		down(udp(kResolver, kClient, 53, 40001, dns_cname_response(id, name, "edge")));
	}
	void handshake(Conn &c)
	{
		up(c.packet(true, sim::SYN));
		down(c.packet(false, sim::SYN | sim::ACK));
		up(c.packet(true, sim::ACK));
	}

	sim::Router r; // first: it resets the kernel model
	sim::NetlinkPeer peer;
	Conn conn;
	int next_port = 41000;

private:
	Chain chain_;
	size_t registered_ = 0;
	std::vector<Bytes> inbox_;
	rating_reply reply_ = {};
};

} // namespace bench
