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

TEST(Wire, FourKindsOfRequestReadAndAnswered)
{
	struct Case {
		const char *what;
		rating_request req;
		policy::Service service;
		const char *client;
		bool flow, mac;
	};
	const Case cases[] = {
		{ "HTTP over IPv4", request(2, 2, "192.168.1.10", "93.184.216.34", 40000, 80, "/index.html", "www.example.com", false),
		  policy::Service::wp, "192.168.1.10", false, false },
		{ "HTTP over IPv6", request(4, 10, "2001:db8:1::10", "2001:db8:2::80", 40001, 80, "/v6", "six.example", true),
		  policy::Service::pc, "2001:db8:1::10", false, true },
		{ "WP flow", request(2, 0, nullptr, "93.184.216.34", 0, 0, "", "video.example", false),
		  policy::Service::wp, "", true, false },
		{ "PC flow", request(4, 2, "192.168.1.10", "93.184.216.34", 0, 0, "/", "chat.example", true),
		  policy::Service::pc, "192.168.1.10", true, true },
	};
	for (const Case &c : cases) {
		wire::Reject why{};
		auto req = wire::parse_request(reinterpret_cast<const uint8_t *>(&c.req), sizeof(c.req), why);
		ASSERT_TRUE(req) << c.what;
		policy::Query q = wire::to_query(*req, 1234);
		EXPECT_EQ(c.service, q.service) << c.what;
		EXPECT_EQ(c.req.info.host, q.host) << c.what;
		EXPECT_EQ(c.req.info.url, q.url) << c.what;
		EXPECT_EQ(c.client, q.client) << c.what;
		EXPECT_EQ(c.flow, q.flow) << c.what;
		EXPECT_EQ(1234, q.when) << c.what;
		const policy::Mac kid = { 0x00, 0x11, 0x22, 0x33, 0x44, 0x55 };
		EXPECT_EQ(c.mac, q.mac == kid) << c.what;
		EXPECT_EQ(!c.mac, !q.mac.has_value()) << c.what << ": the MAC is read for PC only";

		for (auto [verdict, page] : { std::pair{ policy::Verdict::block, std::string("http://b.lan/?h=x") },
					      { policy::Verdict::white_pass, std::string("") },
					      { policy::Verdict::pass, std::string(600, 'u') } }) {
			rating_reply want = {};
			memcpy(&want.family, &c.req.family, 40); // header fields echoed
			want.kind = RATING_KIND_REPLY;
			want.service = c.req.service + 1;
			want.verdict = u32(verdict);
			memcpy(want.redirect_url, page.data(), std::min<size_t>(page.size(), 511));
			wire::Record got = wire::build_reply(*req, verdict, page);
			EXPECT_EQ(sim::hex(sim::Bytes((uint8_t *)&want, (uint8_t *)&want + sizeof(want))),
				  sim::hex(sim::Bytes(got.begin(), got.end())))
				<< c.what;
		}
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

} // namespace
