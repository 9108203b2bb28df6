// The shared parts of the DNS and flow hook tests.
#include <arpa/inet.h>

#include <cstdio>

#include "flow_fixture.h"

#include "core/rating.h"
#include "linux/list.h"
#include "sim/pcap.h"
#include "track/dns_table.h"
#include "track/pct_table.h"
#include "track/ssl_table.h"

namespace flows {

const char *const kClient = "192.168.1.10";
const char *const kClient2 = "192.168.1.20";
const char *const kResolver = "8.8.8.8";
const char *const kServer = "93.184.216.34";
const sim::Mac kClient2Mac = { 0x00, 0x11, 0x22, 0x33, 0x44, 0x66 };

// ---- DNS messages ----

static void put16(Bytes &b, uint16_t v)
{
	b.push_back(v >> 8);
	b.push_back(v & 0xff);
}

static void put_name(Bytes &b, const std::string &name)
{
	size_t start = 0;
	while (start <= name.size()) {
		size_t dot = name.find('.', start);
		if (dot == std::string::npos)
			dot = name.size();
		b.push_back((uint8_t)(dot - start));
		b.insert(b.end(), name.begin() + start, name.begin() + dot);
		start = dot + 1;
	}
	b.push_back(0);
}

Bytes dns_query(uint16_t id, const std::string &name, uint16_t qtype, uint16_t qclass)
{
	Bytes b;
	put16(b, id);
	put16(b, 0x0100); // RD
	put16(b, 1);
	put16(b, 0);
	put16(b, 0);
	put16(b, 0);
	put_name(b, name);
	put16(b, qtype);
	put16(b, qclass);
	return b;
}

Bytes dns_response(uint16_t id, const std::string &name, const std::vector<const char *> &v4,
		   const std::vector<const char *> &v6)
{
	Bytes b;
	put16(b, id);
	put16(b, 0x8180); // QR RD RA, no error
	put16(b, 1);
	put16(b, (uint16_t)(v4.size() + v6.size()));
	put16(b, 0);
	put16(b, 0);
	put_name(b, name);
	put16(b, v4.empty() && !v6.empty() ? 28 : 1);
	put16(b, 1);
	auto rr = [&](uint16_t type, const Bytes &rdata) {
		put16(b, 0xc00c);
		put16(b, type);
		put16(b, 1);
		put16(b, 0);
		put16(b, 300);
		put16(b, (uint16_t)rdata.size());
		b.insert(b.end(), rdata.begin(), rdata.end());
	};
	for (const char *a : v4)
		rr(1, addr4(a));
	for (const char *a : v6)
		rr(28, addr6(a));
	return b;
}

// ---- the capture ----

const std::vector<Bytes> &dns_capture()
{
	static std::vector<Bytes> frames;
	if (!frames.empty())
		return frames;
	sim::PcapLink link;
	if (!sim::pcap_read(std::string(DNSHOOK_SOURCE_DIR) + "/tests/data/dns.pcap", &frames, &link) ||
	    link != sim::PCAP_ETHERNET)
		frames.clear();
	return frames;
}

// ---- rating requests ----

Bytes addr4(const char *dotted)
{
	Bytes b(4);
	inet_pton(AF_INET, dotted, b.data());
	return b;
}

Bytes addr6(const char *text)
{
	Bytes b(16);
	inet_pton(AF_INET6, text, b.data());
	return b;
}

Bytes expected_request(const Expected &e)
{
	Bytes b(576, 0);
	auto host32 = [&](size_t off, uint32_t v) { memcpy(&b[off], &v, 4); };
	host32(0, 0); // kind: request
	host32(4, e.service);
	uint16_t fam = e.family;
	memcpy(&b[8], &fam, 2);
	std::copy(e.src.begin(), e.src.end(), b.begin() + 12);
	std::copy(e.dst.begin(), e.dst.end(), b.begin() + 28);
	// ports 44..47 stay zero for flows
	std::copy(e.url.begin(), e.url.end(), b.begin() + 48);
	std::copy(e.host.begin(), e.host.end(), b.begin() + 308);
	std::copy(e.mac.begin(), e.mac.end(), b.begin() + 568);
	return b;
}

Bytes reply_for(const Bytes &request, uint32_t verdict)
{
	Bytes r(576, 0);
	uint32_t kind = 1, service;
	memcpy(&service, &request[4], 4);
	service += 1;
	memcpy(&r[0], &kind, 4);
	memcpy(&r[4], &service, 4);
	std::copy(request.begin() + 8, request.begin() + 48, r.begin() + 8);
	memcpy(&r[48], &verdict, 4);
	return r;
}

// ---- the tables ----

static std::string text4(uint32_t a)
{
	char s[INET_ADDRSTRLEN];
	inet_ntop(AF_INET, &a, s, sizeof(s));
	return s;
}

static std::string text6(const uint8_t *a)
{
	char s[INET6_ADDRSTRLEN];
	inet_ntop(AF_INET6, a, s, sizeof(s));
	return s;
}

template <typename Rec, typename Block, typename F>
static void walk(Block *t, F f)
{
	struct list_head *pos;
	if (!t)
		return;
	list_for_each(pos, &t->pool.age_list) f(container_of(pos, Rec, node.age_link));
}

std::vector<PctView> pct_records()
{
	std::vector<PctView> v;
	walk<pct_tracking>(pct_table, [&](pct_tracking *r) {
		v.push_back({ text4(r->addr), r->host, r->state, r->keep });
	});
	return v;
}

std::vector<PctView> pct6_records()
{
	std::vector<PctView> v;
	walk<pct6_tracking>(pct6_table, [&](pct6_tracking *r) {
		v.push_back({ text6(r->addr6), r->host, r->state, r->keep });
	});
	return v;
}

std::vector<SslView> ssl_records()
{
	std::vector<SslView> v;
	walk<ssl_tracking>(ssl_table, [&](ssl_tracking *r) {
		v.push_back({ text4(r->client), text4(r->server), r->host, r->state, r->trust });
	});
	return v;
}

std::vector<SslView> ssl6_records()
{
	std::vector<SslView> v;
	walk<ssl6_tracking>(ssl6_table, [&](ssl6_tracking *r) {
		v.push_back({ text6(r->client), text6(r->server), r->host, r->state, r->trust });
	});
	return v;
}

std::vector<DnsView> dns_records()
{
	std::vector<DnsView> v;
	walk<dns_entry>(dns_table, [&](dns_entry *e) {
		int n = 0;
		for (auto &a : e->addrs)
			n += a.family != 0;
		v.push_back({ e->name, text4(e->client), e->state, n });
	});
	return v;
}

// ---- packets ----

Bytes udp4(const char *src, const char *dst, uint16_t sport, uint16_t dport, const Bytes &payload)
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

Bytes tcp4(const char *src, const char *dst, uint16_t sport, uint16_t dport, uint8_t flags,
	   const Bytes &payload)
{
	sim::Ip4 ip;
	ip.src = sim::ip4(src);
	ip.dst = sim::ip4(dst);
	sim::Tcp t;
	t.sport = sport;
	t.dport = dport;
	t.flags = flags;
	t.payload = payload;
	return sim::ip4_tcp(ip, t);
}

Bytes udp6(const char *src, const char *dst, uint16_t sport, uint16_t dport, const Bytes &payload)
{
	sim::Ip6 ip;
	ip.src = sim::ip6(src);
	ip.dst = sim::ip6(dst);
	sim::Udp u;
	u.sport = sport;
	u.dport = dport;
	u.payload = payload;
	return sim::ip6_udp(ip, u);
}

Bytes tcp6(const char *src, const char *dst, uint16_t sport, uint16_t dport, uint8_t flags)
{
	sim::Ip6 ip;
	ip.src = sim::ip6(src);
	ip.dst = sim::ip6(dst);
	sim::Tcp t;
	t.sport = sport;
	t.dport = dport;
	t.flags = flags;
	return sim::ip6_tcp(ip, t);
}

// ---- the router ----

void FlowTest::SetUp()
{
	ASSERT_EQ(0, router.load());
	kmodel_log_clear();
}

void FlowTest::TearDown() { router.unload(); }

// The switch files' own lines are not what the tests look at.
void FlowTest::wp(bool on)
{
	ASSERT_GT(router.write_proc("wl_warning_page", on ? "1" : "0"), 0);
	kmodel_log_clear();
}

void FlowTest::pc(bool on)
{
	ASSERT_GT(router.write_proc("pcg_proc", on ? "1" : "0"), 0);
	kmodel_log_clear();
}

sim::Verdict FlowTest::out(const Bytes &ip, const sim::Mac &src) { return router.forward(ip, router.br0(), router.wan(), src); }
sim::Verdict FlowTest::in(const Bytes &ip) { return router.forward(ip, router.wan(), router.br0(), sim::kGatewayMac); }

sim::Verdict FlowTest::frame(const Bytes &f, bool from_lan)
{
	return from_lan ? router.forward_frame(f, router.br0(), router.wan())
			: router.forward_frame(f, router.wan(), router.br0());
}

std::vector<Bytes> FlowTest::requests() { return daemon.read_payloads(); }

void FlowTest::answer(const Bytes &request, uint32_t verdict)
{
	Bytes r = reply_for(request, verdict);
	ASSERT_GT(daemon.send(0, r.data(), r.size()), 0);
}

} // namespace flows
