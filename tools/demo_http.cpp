// Demo: an HTTP client behind br0 visits an allowed site, which the
// daemon passes, and a blocked one, which gets the block page. One line
// per packet: who sent it, what became of it, flags, seq/ack, payload.
#include <arpa/inet.h>
#include <cstdio>
#include <cstring>
#include <string>

#include "tools/demo.h"

#include "core/rating.h"
#include "kmodel/host.h"
#include "kmodel/net.h"
#include "sim/conversation.h"
#include "sim/netlink_peer.h"
#include "sim/packet.h"
#include "sim/router.h"

namespace {

const uint32_t kClient = sim::ip4("192.168.1.10");

std::string flags_text(uint8_t f)
{
	static const struct { uint8_t bit; const char *name; } names[] = {
		{ sim::SYN, "SYN" }, { sim::FIN, "FIN" }, { sim::RST, "RST" }, { sim::PSH, "PSH" }, { sim::ACK, "ACK" },
	};
	std::string s;
	for (const auto &n : names)
		if (f & n.bit)
			s += (s.empty() ? "" : "+") + std::string(n.name);
	return s;
}

// "SYN+ACK seq=... ack=... 'GET / HTTP/1.1'" for an IPv4 TCP packet.
std::string describe(const sim::Bytes &ip)
{
	size_t th = (ip[0] & 0xf) * 4;
	size_t doff = (ip[th + 12] >> 4) * 4;
	uint32_t seq, ack;
	memcpy(&seq, &ip[th + 4], 4);
	memcpy(&ack, &ip[th + 8], 4);
	char buf[160];
	snprintf(buf, sizeof(buf), "%-8s seq=%u ack=%u", flags_text(ip[th + 13]).c_str(), ntohl(seq), ntohl(ack));
	std::string out = buf;
	if (ip.size() > th + doff) {
		std::string payload(ip.begin() + th + doff, ip.end());
		std::string first = payload.substr(0, payload.find("\r\n"));
		out += " \"" + first + "\" (" + std::to_string(payload.size()) + " bytes)";
		size_t loc = payload.find("Location: ");
		if (loc != std::string::npos)
			out += " -> " + payload.substr(loc + 10, payload.find("\r\n", loc) - loc - 10);
	}
	return out;
}

struct Demo {
	sim::Router r;
	sim::NetlinkPeer daemon;
	sim::Conversation c = conversation(50000, 1000, 5000);
	uint32_t redirect_end = 0; // what a client that got the redirect acknowledges

	static sim::Conversation conversation(uint16_t cport, uint32_t cseq, uint32_t sseq)
	{
		sim::Conversation c;
		c.client = kClient, c.server = sim::ip4("93.184.216.34");
		c.cport = cport, c.cseq = cseq, c.sseq = sseq;
		return c;
	}

	// The filter's own packets, one line each.
	void show_forged()
	{
		for (const kmodel_tx &tx : r.sent()) {
			sim::Bytes ip(tx.frame.begin() + 14, tx.frame.end());
			bool to_client = memcmp(&ip[16], &kClient, 4) == 0;
			size_t th = (ip[0] & 0xf) * 4, doff = (ip[th + 12] >> 4) * 4;
			if (to_client && ip.size() > th + doff) {
				uint32_t seq;
				memcpy(&seq, &ip[th + 4], 4);
				redirect_end = ntohl(seq) + (ip.size() - th - doff);
			}
			printf("  %-16s  %-8s  %s\n", to_client ? "filter -> client" : "filter -> server", "sent",
			       describe(ip).c_str());
		}
		r.clear_sent();
		fflush(stdout);
	}

	void send(bool from_client, uint8_t flags, const std::string &payload = "")
	{
		sim::Bytes p = c.packet(from_client, flags, payload);
		sim::Verdict v = from_client ? r.forward(p, r.br0(), r.wan())
					     : r.forward(p, r.wan(), r.br0(), sim::kGatewayMac);
		printf("  %-16s  %-8s  %s\n", from_client ? "client -> server" : "server -> client",
		       v.accepted() ? "passed" : "DROPPED", describe(p).c_str());
		fflush(stdout);
		show_forged();
	}

	// The daemon reads the filter's request and answers it.
	void rate(uint32_t verdict, const char *url)
	{
		for (const sim::Bytes &msg : daemon.read_payloads()) {
			rating_request q;
			memcpy(&q, msg.data(), sizeof(q));
			printf("  %-16s  %-8s  service=%s host=%s url=%s\n", "filter -> daemon", "request",
			       q.service == RATING_WP_REQUEST ? "WP" : "PC", q.info.host, q.info.url);
			rating_reply a;
			memset(&a, 0, sizeof(a));
			memcpy(&a, &q, 48);
			a.kind = RATING_KIND_REPLY;
			a.service = q.service + 1;
			a.verdict = verdict;
			strncpy(a.redirect_url, url, sizeof(a.redirect_url) - 1);
			printf("  %-16s  %-8s  %s\n", "daemon -> filter", "reply", verdict == PASS ? "PASS" : verdict == BLOCK ? "BLOCK" : "?");
			fflush(stdout);
			daemon.send(0, &a, sizeof(a));
			show_forged();
		}
	}

	void visit(const char *host, uint32_t verdict)
	{
		std::string req = std::string("GET / HTTP/1.1\r\nHost: ") + host + "\r\nUser-Agent: demo\r\n\r\n";
		send(true, sim::SYN);
		send(false, sim::SYN | sim::ACK);
		send(true, sim::ACK);
		send(true, sim::ACK | sim::PSH, req);
		send(false, sim::ACK);
		rate(verdict, "http://blockpage.lan/denied");
		if (verdict == PASS) {
			send(false, sim::ACK | sim::PSH, "HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nhello");
			send(true, sim::ACK);
			return;
		}
		send(false, sim::ACK | sim::PSH, "HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nhello");
		// The client acknowledges the redirect and closes; the filter
		// plays the server's part.
		c.sseq = redirect_end;
		send(true, sim::ACK);
		c.sseq++; // the filter's FIN
		send(true, sim::ACK);
		send(true, sim::FIN | sim::ACK);
	}
};

} // namespace

void demo_http(void)
{
	printf("\n-- HTTP filtering: one allowed site, one blocked site --\n");
	Demo d;
	d.r.load();
	d.r.route("192.168.1.0/24", d.r.br0(), KMODEL_OUT_HH, &sim::kClientMac);
	d.r.route("93.184.216.0/24", d.r.wan(), KMODEL_OUT_HH, &sim::kGatewayMac);
	demo_command("echo 1 > /proc/wl_warning_page");
	demo_result(d.r.write_proc("wl_warning_page", "1\n"));
	kmodel_log_clear();
	kmodel_log_echo(true);

	printf("\n# www.example.com: allowed\n");
	d.visit("www.example.com", PASS);

	printf("\n# games.example.net: blocked\n");
	d.c = Demo::conversation(50001, 2000, 9000);
	d.visit("games.example.net", BLOCK);

	kmodel_log_echo(false);
	d.r.unload();
}
