// The daemon's reading of requests and building of replies, judged by the
// filter's own record layout; the responder's counting of what it ignores.
#include <gtest/gtest.h>

#include <arpa/inet.h>

#include <cstring>

#include "core/rating.h"
#include "rated/responder.h"
#include "rated/wire.h"
#include "sim/packet.h"
#include "tests/rated/policy_support.h"

using namespace rated_test;

namespace {

// A request as the filter lays it out, unfilled bytes set to 0xEE so that
// reading them shows.
rating_request request(u32 service, u16 family, const char *src, const char *dst, u16 sport, u16 dport,
		       const char *url, const char *host, bool mac)
{
	rating_request r;
	memset(&r, 0xee, sizeof(r));
	r.kind = RATING_KIND_REQUEST;
	r.service = service;
	if (family)
		r.family = family;
	int af = strchr(dst, ':') ? AF_INET6 : AF_INET;
	if (src)
		inet_pton(af, src, r.src_addr.raw);
	else
		memset(r.src_addr.raw, 0, 4);
	inet_pton(af, dst, r.dst_addr.raw);
	r.src_port = htons(sport);
	r.dst_port = htons(dport);
	strcpy(r.info.url, url);
	strcpy(r.info.host, host);
	if (mac)
		memcpy(r.mac, "\x00\x11\x22\x33\x44\x55", 6);
	return r;
}

// The four kinds of request as the daemon reads them (their replies and
// log lines are compared whole by daemon_e2e.py), and a reply's address
// cut to 511 characters.
TEST(Wire, FourKindsOfRequestReadAndAnswered)
{
	const struct {
		rating_request req;
		const char *want; // service client flow MAC
	} cases[] = {
		{ request(2, 2, "192.168.1.10", "93.184.216.34", 40000, 80, "/index.html", "www.example.com", false), "wp 192.168.1.10 0 -" },
		{ request(4, 10, "2001:db8:1::10", "2001:db8:2::80", 40001, 80, "/v6", "six.example", true), "pc 2001:db8:1::10 0 kid" },
		{ request(2, 0, nullptr, "93.184.216.34", 0, 0, "", "video.example", false), "wp  1 -" },
		{ request(4, 2, "192.168.1.10", "93.184.216.34", 0, 0, "/", "chat.example", true), "pc 192.168.1.10 1 kid" },
		{ request(2, 2, "192.168.1.10", "93.184.216.34", 40000, 80, "/", "a.example", true), "wp 192.168.1.10 0 -" },
	};
	const policy::Mac kid = { 0x00, 0x11, 0x22, 0x33, 0x44, 0x55 };
	for (const auto &c : cases) {
		wire::Reject why{};
		auto req = wire::parse_request(reinterpret_cast<const uint8_t *>(&c.req), sizeof(c.req), why);
		ASSERT_TRUE(req) << c.want;
		policy::Query q = wire::to_query(*req, 1234);
		EXPECT_EQ(std::string(c.want) + " " + c.req.info.host + " " + c.req.info.url + " 1234",
			  std::string(q.service == policy::Service::pc ? "pc " : "wp ") + q.client + " " + std::to_string(q.flow) +
				  (q.mac ? q.mac == kid ? " kid " : " other " : " - ") + q.host + " " + q.url + " " +
				  std::to_string(q.when));
		wire::Record got = wire::build_reply(*req, policy::Verdict::block, std::string(600, 'u'));
		EXPECT_EQ(std::string(511, 'u'), std::string((const char *)got.data() + 52)) << c.want;
	}
}

TEST(Wire, MessagesThatCannotBeAnsweredAreCountedAndLoggedOncePerKind)
{
	rating_request good = request(2, 2, "192.168.1.10", "93.184.216.34", 40000, 80, "/", "a.example", false);
	rating_request kind1 = good, svc3 = good, svc0 = good;
	kind1.kind = 1;
	svc3.service = 3;
	svc0.service = 0;
	const uint8_t *g = reinterpret_cast<const uint8_t *>(&good);
	struct Case {
		const uint8_t *data;
		size_t len;
		std::optional<wire::Reject> why;
	};
	const Case cases[] = {
		{ g, 575, wire::Reject::wrong_size },
		{ g, 0, wire::Reject::wrong_size },
		{ g, 576, std::nullopt },
		{ reinterpret_cast<const uint8_t *>(&kind1), 576, wire::Reject::not_a_request },
		{ reinterpret_cast<const uint8_t *>(&svc3), 576, wire::Reject::unknown_service },
		{ reinterpret_cast<const uint8_t *>(&svc0), 576, wire::Reject::unknown_service },
	};
	rated::Log log(rated::Level::error, false); // the log's text is checked end to end
	rated::Responder responder(load("[wp]\nblock a.example\n"), log);
	for (const Case &c : cases) {
		wire::Reject why{};
		EXPECT_EQ(c.why.has_value(), !wire::parse_request(c.data, c.len, why)) << c.len;
		if (c.why) {
			EXPECT_EQ(*c.why, why) << c.len;
		}
		EXPECT_EQ(!c.why, responder.answer(c.data, c.len, 0).has_value());
	}
	responder.bad_header();
	const rated::Counters &n = responder.counters();
	EXPECT_EQ(1u, n.answered);
	EXPECT_EQ(1u, n.bad_header);
	EXPECT_EQ((std::array<uint64_t, 3>{ 2, 1, 2 }), n.rejected);
}

// Names and paths reach the log from packets: a DNS label may hold a space
// or a newline, a request line any control byte. Each stays one word of
// one line.
TEST(Wire, DecisionLineEscapesWhatAPacketCarries)
{
	auto p = load("[wp]\nblock a.example\n");
	policy::Query q;
	q.host = "a b\nWP mac=-\\\x7f\xc3\xa9.a.example";
	q.url = std::string("/\x01\0x", 4);
	q.client = "192.168.1.10";
	EXPECT_EQ("WP mac=- device=- client=192.168.1.10 host=a\\x20b\\x0aWP\\x20mac=-\\x5c\\x7f\\xc3\\xa9.a.example "
		  "url=/\\x01\\x00x BLOCK by t.policy:2: block a.example",
		  rated::decision_line(q, p->decide(q)));
}

} // namespace
