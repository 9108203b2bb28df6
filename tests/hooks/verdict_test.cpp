// The dispatcher's non-HTTP branches and how it tells replies apart, fed
// through the netlink channel by the scripted daemon.
#include <gtest/gtest.h>

#include <string>

#include "tests/hooks/http_fixture.h"

#include "net/netfilter/nf_conntrack.h"
#include "track/pct_table.h"
#include "track/ssl_table.h"

using namespace http_test;

namespace {

rating_reply flow_reply(uint32_t service, uint32_t src, uint32_t dst, uint32_t verdict)
{
	rating_reply r;
	memset(&r, 0, sizeof(r));
	r.kind = RATING_KIND_REPLY;
	r.service = service;
	r.family = RATING_FAMILY_INET;
	r.src_addr.ip = src;
	r.dst_addr.ip = dst;
	r.verdict = verdict;
	return r;
}

rating_reply flow_reply6(uint32_t service, const sim::Addr6 &src, const sim::Addr6 &dst, uint32_t verdict)
{
	rating_reply r = flow_reply(service, 0, 0, verdict);
	r.family = RATING_FAMILY_INET6;
	memcpy(r.src_addr.raw, src.data(), 16);
	memcpy(r.dst_addr.raw, dst.data(), 16);
	return r;
}

} // namespace

TEST_F(HttpScenario, VerdictsForHttpsFlows)
{
	struct nf_conn *ct = kmodel_ct_new();
	ssl_add(kClient, kServer, "kids.example", STATE_ESTAB);
	struct iphdr iph = {};
	iph.saddr = kClient;
	iph.daddr = kServer;
	struct ssl_tracking *rec = ssl_find(&iph);
	ASSERT_NE(nullptr, rec);
	rec->nfconn = &ct->ct_general;
	kmodel_log_clear();

	const std::string fn = "<7>[receive_from_user]: ";
	daemon.send(flow_reply(RATING_PC_REPLY, kClient, kServer, WHITE_PASS));
	EXPECT_EQ(STATE_WHITE_PASS, rec->state);
	EXPECT_EQ(1, rec->trust);
	EXPECT_EQ(1, ct->white_mark);
	rec->trust = 0;
	daemon.send(flow_reply(RATING_PC_REPLY, kServer, kClient, PASS)); // either direction
	EXPECT_EQ(STATE_PASS, rec->state);
	EXPECT_EQ(1, rec->trust);
	daemon.send(flow_reply(RATING_PC_REPLY, kClient, kServer, BLOCK));
	EXPECT_EQ(STATE_BLOCK, rec->state);
	daemon.send(flow_reply(RATING_PC_REPLY, kClient, kServer, 9)); // ignored
	EXPECT_EQ(STATE_BLOCK, rec->state);
	daemon.send(flow_reply(RATING_PC_REPLY, kClient, sim::ip4("10.9.9.9"), PASS));
	EXPECT_EQ((Lines{ fn + "[PC]non-HTTP: host=kids.example --> WHITE_PASS\n",
			  fn + "[PC]non-HTTP: host=kids.example --> PASS\n",
			  fn + "[PC]non-HTTP: host=kids.example --> BLOCK\n", fn + "no ssl tracking found\n" }),
		  kmodel_log());

	// IPv6: the same lines under handle6.
	kmodel_log_clear();
	const sim::Addr6 any{};
	ssl6_add(any.data(), kServer6.data(), "six.example", STATE_ESTAB);
	daemon.send(flow_reply6(RATING_PC_REPLY, kClient6, kServer6, BLOCK));
	EXPECT_EQ(Lines{ "<7>[handle6]: [PC]non-HTTP: host=six.example --> BLOCK\n" }, kmodel_log());
}

TEST_F(HttpScenario, VerdictsForNonHttpWpFlows)
{
	pct_add("ads.example", kServer, 0);
	struct pct_tracking *rec = pct_find(kServer);
	ASSERT_NE(nullptr, rec);
	kmodel_log_clear();

	const std::string fn = "<7>[receive_from_user]: ";
	daemon.send(flow_reply(RATING_WP_REPLY, 0, kServer, PASS));
	EXPECT_EQ(STATE_PASS, rec->state);
	daemon.send(flow_reply(RATING_WP_REPLY, 0, kServer, BLOCK));
	EXPECT_EQ(STATE_BLOCK, rec->state);
	rec->state = STATE_PASS;
	daemon.send(flow_reply(RATING_WP_REPLY, 0, kServer, WHITE_PASS)); // WP knows no white pass
	EXPECT_EQ(STATE_BLOCK, rec->state);
	daemon.send(flow_reply(RATING_WP_REPLY, 0, sim::ip4("10.9.9.9"), PASS));
	// A client address or a port sends the reply to the HTTP table.
	daemon.send(flow_reply(RATING_WP_REPLY, kClient, kServer, PASS));
	rating_reply ported = flow_reply(RATING_WP_REPLY, 0, kServer, PASS);
	ported.dst_port = htons(80);
	daemon.send(ported);
	EXPECT_EQ((Lines{ fn + "[WP]non-HTTP: host=ads.example --> PASS\n",
			  fn + "[WP]non-HTTP: host=ads.example --> BLOCK\n", fn + "no pct tracking found\n",
			  fn + "no tcp tracking found\n", fn + "no tcp tracking found\n" }),
		  kmodel_log());

	// IPv6 wants a NON-zero source for the flow branch; zero goes to HTTP.
	kmodel_log_clear();
	pct6_add("six.example", kServer6.data(), 0);
	daemon.send(flow_reply6(RATING_WP_REPLY, kClient6, kServer6, PASS));
	daemon.send(flow_reply6(RATING_WP_REPLY, sim::Addr6{}, kServer6, PASS));
	rating_reply bad = flow_reply6(RATING_WP_REPLY, kClient6, kServer6, PASS);
	bad.kind = 0;
	daemon.send(bad);
	EXPECT_EQ((Lines{ "<7>[handle6]: [WP]non-HTTP: host=six.example --> PASS\n",
			  "<7>[handle6]: no tcp tracking found\n",
			  "<3>[handle6]: unexpected packet type incoming to hook, 0, 3\n" }),
		  kmodel_log());
}

// An unknown verdict still writes the block-page address; a reply of
// nothing but a netlink header reads as all zeros.
TEST_F(HttpScenario, VerdictUrlCopyAndShortReplies)
{
	services(true, false);
	Conn c;
	handshake(c);
	ASSERT_TRUE(up(c.up(sim::ACK | sim::PSH, get_request("a.example"))).accepted());
	auto reqs = daemon.requests();
	ASSERT_EQ(1u, reqs.size());
	std::string longurl(600, 'u');
	daemon.reply(reqs[0], 7, longurl.c_str());
	EXPECT_EQ(std::string(511, 'u'), record(c)->redirect_url);
	EXPECT_EQ(STATE_RATING, record(c)->state);
	EXPECT_NE(nullptr, record(c)->held_skb) << "an unknown verdict keeps the copy";

	kmodel_log_clear();
	EXPECT_EQ(16, daemon.peer.send(0, nullptr, 0));
	EXPECT_EQ(Lines{ "<3>[receive_from_user]: unexpected packet type incoming to hook, 0, 0\n" },
		  kmodel_log());
}
