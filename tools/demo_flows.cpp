// Demo: a client looks a name up, then opens a non-HTTP flow to the
// address it got. With the warning page (WP) the flow is held until the
// daemon rates the name, then passed or dropped; with parental control
// (PC) the same happens per client, with its MAC. With both services off
// nothing is looked at. One line per packet, per request and per table.
#include <arpa/inet.h>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "tools/demo.h"

#include "core/rating.h"
#include "kmodel/host.h"
#include "kmodel/net.h"
#include "linux/list.h"
#include "linux/netfilter.h"
#include "lists/unblock.h"
#include "sim/netlink_peer.h"
#include "sim/packet.h"
#include "sim/router.h"
#include "track/dns_table.h"
#include "track/pct_table.h"
#include "track/ssl_table.h"

namespace {

const char *const kClient = "192.168.1.10";
const char *const kResolver = "192.0.2.53";

std::string dotted(uint32_t a)
{
	char s[INET_ADDRSTRLEN];
	inet_ntop(AF_INET, &a, s, sizeof(s));
	return s;
}

struct Demo {
	sim::Router r;
	sim::NetlinkPeer daemon;
	uint16_t id = 0x4d10;

	Demo()
	{
		kmodel_log_echo(true);
		demo_command("insmod dnshook");
		demo_result(r.load());
	}
	~Demo()
	{
		demo_command("rmmod dnshook");
		r.unload();
		kmodel_log_echo(false);
	}

	void write(const char *file, const char *text)
	{
		demo_command(std::string("echo -n '") + text + "' > /proc/" + file);
		demo_result(r.write_proc(file, text));
	}

	void show(const std::string &who, const std::string &what, const sim::Verdict &v)
	{
		const char *hook = v.hook == NF_INET_PRE_ROUTING ? "PRE_ROUTING" : "FORWARD";
		printf("  %-34s %-40s %s%s\n", who.c_str(), what.c_str(), v.accepted() ? "ACCEPT" : "DROP at ",
		       v.accepted() ? "" : hook);
		fflush(stdout);
	}

	// The client asks the resolver, the resolver answers.
	void lookup(const std::string &name, const std::vector<const char *> &addrs)
	{
		sim::Ip4 q, a;
		q.src = a.dst = sim::ip4(kClient);
		q.dst = a.src = sim::ip4(kResolver);
		sim::Udp qu, au;
		qu.sport = au.dport = 40053;
		qu.dport = au.sport = 53;
		qu.payload = sim::dns_query(id, name);
		au.payload = sim::dns_response(id, name, addrs);
		id++;
		show(std::string("client ") + kClient + " (br0) -> DNS", "query A " + name,
		     r.forward(sim::ip4_udp(q, qu), r.br0(), r.wan()));
		std::string list;
		for (auto *x : addrs)
			list += std::string(list.empty() ? "" : ", ") + x;
		show(std::string("DNS ") + kResolver + " (eth0) -> client", "answer " + list,
		     r.forward(sim::ip4_udp(a, au), r.wan(), r.br0(), sim::kGatewayMac));
	}

	sim::Verdict flow(const char *server, uint16_t port, bool from_client)
	{
		sim::Ip4 ip;
		ip.src = sim::ip4(from_client ? kClient : server);
		ip.dst = sim::ip4(from_client ? server : kClient);
		sim::Tcp t;
		t.sport = from_client ? 41000 : port;
		t.dport = from_client ? port : 41000;
		t.flags = from_client ? sim::SYN : sim::SYN | sim::ACK;
		sim::Verdict v = from_client ? r.forward(sim::ip4_tcp(ip, t), r.br0(), r.wan())
					     : r.forward(sim::ip4_tcp(ip, t), r.wan(), r.br0(), sim::kGatewayMac);
		std::string who = from_client ? std::string("client -> ") + server + ":" + std::to_string(port)
					      : std::string(server) + ":" + std::to_string(port) + " -> client";
		show(who, from_client ? "SYN" : "SYN+ACK", v);
		return v;
	}

	// What the daemon read from netlink; it answers each with `verdict`.
	void rate(uint32_t verdict)
	{
		static const char *names[] = { "PASS", "WHITE_PASS", "BLOCK" };
		for (auto &p : daemon.read_payloads()) {
			struct rating_request req;
			memcpy(&req, p.data(), sizeof(req));
			char mac[24] = "-";
			if (req.service == RATING_PC_REQUEST)
				snprintf(mac, sizeof(mac), "%02x:%02x:%02x:%02x:%02x:%02x", req.mac[0], req.mac[1],
					 req.mac[2], req.mac[3], req.mac[4], req.mac[5]);
			printf("  daemon <- request (%zu bytes): service=%u family=%u src=%s dst=%s url=\"%s\" host=\"%s\" mac=%s\n",
			       p.size(), req.service, req.family, dotted(req.src_addr.ip).c_str(),
			       dotted(req.dst_addr.ip).c_str(), req.info.url, req.info.host, mac);
			struct rating_reply rep;
			memset(&rep, 0, sizeof(rep));
			memcpy(&rep, &req, offsetof(struct rating_reply, verdict));
			rep.kind = RATING_KIND_REPLY;
			rep.service = req.service + 1;
			rep.verdict = verdict;
			printf("  daemon -> reply %s\n", names[verdict]);
			fflush(stdout);
			daemon.send(0, &rep, sizeof(rep));
		}
	}

	void tables()
	{
		struct list_head *pos;
		if (pct_table)
			list_for_each(pos, &pct_table->pool.age_list) {
				auto *p = container_of(pos, pct_tracking, node.age_link);
				printf("  [non-HTTP table] %-15s host=%s state=%u keep=%u\n", dotted(p->addr).c_str(), p->host,
				       p->state, p->keep);
			}
		if (ssl_table)
			list_for_each(pos, &ssl_table->pool.age_list) {
				auto *s = container_of(pos, ssl_tracking, node.age_link);
				printf("  [HTTPS table]    %s -> %s host=%s state=%u trust=%u\n", dotted(s->client).c_str(),
				       dotted(s->server).c_str(), s->host, s->state, s->trust);
			}
		int n = 0;
		if (dns_table)
			list_for_each(pos, &dns_table->pool.age_list) n++;
		printf("  [DNS cache]      %d name(s)\n", n);
		fflush(stdout);
	}
};

void demo_wp()
{
	printf("\n-- WP: a lookup, then a flow held until the daemon rates the name --\n");
	Demo d;
	d.write("wl_warning_page", "1");
	d.lookup("chat.example.test", { "203.0.113.10" });
	d.lookup("ads.example.test", { "203.0.113.66" });
	d.tables();
	d.flow("203.0.113.10", 5222, true); // held, request sent
	d.flow("203.0.113.10", 5222, true); // still waiting
	d.rate(PASS);
	d.flow("203.0.113.10", 5222, true);
	d.flow("203.0.113.10", 5222, false);
	d.flow("203.0.113.66", 443, true);
	d.rate(BLOCK);
	d.flow("203.0.113.66", 443, true); // the record goes
	d.flow("203.0.113.66", 443, true); // unknown from now on
	d.flow("198.51.100.1", 22, true);  // never resolved
	d.tables();
}

void demo_pc()
{
	printf("\n-- PC: the same with the client's MAC; a flush sends the flow back to rating --\n");
	Demo d;
	d.write("pcg_proc", "1");
	d.lookup("video.example.test", { "198.51.100.40" });
	d.tables();
	d.flow("198.51.100.40", 443, true);
	d.rate(PASS);
	d.flow("198.51.100.40", 443, true);
	d.r.neighbour(kClient, d.r.br0(), sim::kClientMac, 0x02 /* reachable */, 0);
	d.flow("198.51.100.40", 443, false);
	d.write("unblock_proc", "=|flush_ssl");
	d.flow("198.51.100.40", 443, true); // trust withdrawn: rated again
	d.rate(BLOCK);
	d.flow("198.51.100.40", 443, true);
	d.tables();
}

void demo_off()
{
	printf("\n-- both services off: nothing is parsed, a pending flush waits --\n");
	Demo d;
	d.write("unblock_proc", "=|flush_ssl");
	d.lookup("idle.example.test", { "192.0.2.99" });
	d.tables();
	printf("  flush pending: %d\n", get_flush_supending());
}

} // namespace

void demo_flows(void)
{
	demo_wp();
	demo_pc();
	demo_off();
}
