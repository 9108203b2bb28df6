// The dispatcher's non-HTTP branches and how it tells replies apart, fed
// through the netlink channel by the scripted daemon.
#include <gtest/gtest.h>

#include <string>

#include "tests/hooks/fixture.h"

#include "net/netfilter/nf_conntrack.h"
#include "track/pct_table.h"
#include "track/ssl_table.h"

using namespace hooks_test;

namespace {

const uint32_t kC = sim::ip4(kClient), kS = sim::ip4(kServer);

} // namespace

TEST_F(HookTest, VerdictsForHttpsFlows)
{
	struct nf_conn *ct = kmodel_ct_new();
	ssl_add(kC, kS, "kids.example", STATE_ESTAB);
	struct iphdr iph = {};
	iph.saddr = kC;
	iph.daddr = kS;
	struct ssl_tracking *rec = ssl_find(&iph);
	ASSERT_NE(nullptr, rec);
	rec->nfconn = &ct->ct_general;
	kmodel_log_clear();

	const std::string fn = "<7>[receive_from_user]: ";
	send(flow_reply(RATING_PC_REPLY, kClient, kServer, WHITE_PASS));
	EXPECT_EQ(STATE_WHITE_PASS, rec->state);
	EXPECT_EQ(1, rec->trust);
	EXPECT_EQ(1, ct->white_mark);
	rec->trust = 0;
	send(flow_reply(RATING_PC_REPLY, kServer, kClient, PASS)); // either direction
	EXPECT_EQ(STATE_PASS, rec->state);
	EXPECT_EQ(1, rec->trust);
	send(flow_reply(RATING_PC_REPLY, kClient, kServer, BLOCK));
	EXPECT_EQ(STATE_BLOCK, rec->state);
	send(flow_reply(RATING_PC_REPLY, kClient, kServer, 9)); // ignored
	EXPECT_EQ(STATE_BLOCK, rec->state);
	send(flow_reply(RATING_PC_REPLY, kClient, "10.9.9.9", PASS));
	EXPECT_EQ((Lines{ fn + "[PC]non-HTTP: host=kids.example --> WHITE_PASS\n",
			  fn + "[PC]non-HTTP: host=kids.example --> PASS\n",
			  fn + "[PC]non-HTTP: host=kids.example --> BLOCK\n", fn + "no ssl tracking found\n" }),
		  kmodel_log());

	// IPv6: the same lines under handle6.
	kmodel_log_clear();
	const sim::Addr6 any{};
	ssl6_add(any.data(), kServer6.data(), "six.example", STATE_ESTAB);
	send(flow_reply(RATING_PC_REPLY, "2001:db8:1::10", "2001:db8:2::80", BLOCK));
	EXPECT_EQ(Lines{ "<7>[handle6]: [PC]non-HTTP: host=six.example --> BLOCK\n" }, kmodel_log());
}

TEST_F(HookTest, VerdictsForNonHttpWpFlows)
{
	pct_add("ads.example", kS, 0);
	struct pct_tracking *rec = pct_find(kS);
	ASSERT_NE(nullptr, rec);
	kmodel_log_clear();

	const std::string fn = "<7>[receive_from_user]: ";
	send(flow_reply(RATING_WP_REPLY, "0.0.0.0", kServer, PASS));
	EXPECT_EQ(STATE_PASS, rec->state);
	send(flow_reply(RATING_WP_REPLY, "0.0.0.0", kServer, BLOCK));
	EXPECT_EQ(STATE_BLOCK, rec->state);
	rec->state = STATE_PASS;
	send(flow_reply(RATING_WP_REPLY, "0.0.0.0", kServer, WHITE_PASS)); // WP knows no white pass
	EXPECT_EQ(STATE_BLOCK, rec->state);
	send(flow_reply(RATING_WP_REPLY, "0.0.0.0", "10.9.9.9", PASS));
	// A client address or a port sends the reply to the HTTP table.
	send(flow_reply(RATING_WP_REPLY, kClient, kServer, PASS));
	rating_reply ported = flow_reply(RATING_WP_REPLY, "0.0.0.0", kServer, PASS);
	ported.dst_port = htons(80);
	send(ported);
	EXPECT_EQ((Lines{ fn + "[WP]non-HTTP: host=ads.example --> PASS\n",
			  fn + "[WP]non-HTTP: host=ads.example --> BLOCK\n", fn + "no pct tracking found\n",
			  fn + "no tcp tracking found\n", fn + "no tcp tracking found\n" }),
		  kmodel_log());

	// IPv6 wants a NON-zero source for the flow branch; zero goes to HTTP.
	kmodel_log_clear();
	pct6_add("six.example", kServer6.data(), 0);
	send(flow_reply(RATING_WP_REPLY, "2001:db8:1::10", "2001:db8:2::80", PASS));
	send(flow_reply(RATING_WP_REPLY, "::", "2001:db8:2::80", PASS));
	rating_reply bad = flow_reply(RATING_WP_REPLY, "2001:db8:1::10", "2001:db8:2::80", PASS);
	bad.kind = 0;
	send(bad);
	EXPECT_EQ((Lines{ "<7>[handle6]: [WP]non-HTTP: host=six.example --> PASS\n",
			  "<7>[handle6]: no tcp tracking found\n",
			  "<3>[handle6]: unexpected packet type incoming to hook, 0, 3\n" }),
		  kmodel_log());
}

// An HTTP connection's verdict in each family, with and without a
// conntrack entry: PASS and WHITE_PASS replay the held request once (the
// white mark only where an IPv4 entry was recorded), and the connection is
// forgotten at its next packet; an unknown verdict changes nothing.
TEST_F(HookTest, HttpVerdictsInBothFamiliesWithAndWithoutConntrack)
{
	services(true, false);
	uint16_t port = 42000;
	for (bool v6 : { false, true })
		for (bool tracked : { true, false })
			for (uint32_t verdict : { uint32_t(PASS), uint32_t(WHITE_PASS), 7u }) {
				SCOPED_TRACE(testing::Message() << "v6 " << v6 << " tracked " << tracked << " verdict " << verdict);
				r.set_tracking(tracked);
				Conn c = Conn(port++, v6);
				handshake(c);
				const Bytes request = c.up(sim::ACK | sim::PSH, get_request("v.example"));
				ASSERT_TRUE(up(request).accepted());
				auto reqs = requests();
				ASSERT_EQ(1u, reqs.size());
				r.clear_sent();
				reply(reqs[0], verdict);
				const bool pass = verdict != 7;
				ASSERT_EQ(pass ? 1u : 0u, to_server().size());
				EXPECT_EQ(pass ? sim::hex(request) : "", pass ? sim::hex(to_server()[0]) : "");
				EXPECT_EQ(pass ? int(verdict == PASS ? STATE_PASS : STATE_WHITE_PASS) : STATE_RATING, record(c)->state);
				EXPECT_EQ(tracked && !v6 && verdict == WHITE_PASS,
					  tracked && r.conntrack(request)->white_mark);
				EXPECT_EQ(pass, up(c.up(sim::ACK)).accepted());
				EXPECT_EQ(pass, record(c) == nullptr);
			}
	r.set_tracking(true);
}

// Each packet of a tracked connection refreshes its record: it outlives
// its first time-out through the sweep that the next connection's add
// brings, while a connection left alone is swept.
TEST_F(HookTest, HttpPacketsRefreshTheirConnection)
{
	services(true, false);
	for (bool v6 : { false, true }) {
		SCOPED_TRACE(v6 ? "IPv6" : "IPv4");
		Conn live = Conn(43000, v6), idle = Conn(43001, v6), next = Conn(43002, v6);
		handshake(live);
		handshake(idle);
		r.advance(40000);
		down(live.down(sim::ACK)); // accepted over IPv4, dropped over IPv6
		r.advance(40000);
		ASSERT_TRUE(up(next.up(sim::SYN)).accepted());
		EXPECT_NE(nullptr, record(live));
		EXPECT_EQ(nullptr, record(idle));
	}
}
