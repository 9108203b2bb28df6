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

rating_reply flow_reply(uint32_t service, uint32_t src, uint32_t dst, uint32_t verdict)
{
	rating_reply r = {};
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
	send(flow_reply(RATING_PC_REPLY, kC, kS, WHITE_PASS));
	EXPECT_EQ(STATE_WHITE_PASS, rec->state);
	EXPECT_EQ(1, rec->trust);
	EXPECT_EQ(1, ct->white_mark);
	rec->trust = 0;
	send(flow_reply(RATING_PC_REPLY, kS, kC, PASS)); // either direction
	EXPECT_EQ(STATE_PASS, rec->state);
	EXPECT_EQ(1, rec->trust);
	send(flow_reply(RATING_PC_REPLY, kC, kS, BLOCK));
	EXPECT_EQ(STATE_BLOCK, rec->state);
	send(flow_reply(RATING_PC_REPLY, kC, kS, 9)); // ignored
	EXPECT_EQ(STATE_BLOCK, rec->state);
	send(flow_reply(RATING_PC_REPLY, kC, sim::ip4("10.9.9.9"), PASS));
	EXPECT_EQ((Lines{ fn + "[PC]non-HTTP: host=kids.example --> WHITE_PASS\n",
			  fn + "[PC]non-HTTP: host=kids.example --> PASS\n",
			  fn + "[PC]non-HTTP: host=kids.example --> BLOCK\n", fn + "no ssl tracking found\n" }),
		  kmodel_log());

	// IPv6: the same lines under handle6.
	kmodel_log_clear();
	const sim::Addr6 any{};
	ssl6_add(any.data(), kServer6.data(), "six.example", STATE_ESTAB);
	send(flow_reply6(RATING_PC_REPLY, kClient6, kServer6, BLOCK));
	EXPECT_EQ(Lines{ "<7>[handle6]: [PC]non-HTTP: host=six.example --> BLOCK\n" }, kmodel_log());
}

TEST_F(HookTest, VerdictsForNonHttpWpFlows)
{
	pct_add("ads.example", kS, 0);
	struct pct_tracking *rec = pct_find(kS);
	ASSERT_NE(nullptr, rec);
	kmodel_log_clear();

	const std::string fn = "<7>[receive_from_user]: ";
	send(flow_reply(RATING_WP_REPLY, 0, kS, PASS));
	EXPECT_EQ(STATE_PASS, rec->state);
	send(flow_reply(RATING_WP_REPLY, 0, kS, BLOCK));
	EXPECT_EQ(STATE_BLOCK, rec->state);
	rec->state = STATE_PASS;
	send(flow_reply(RATING_WP_REPLY, 0, kS, WHITE_PASS)); // WP knows no white pass
	EXPECT_EQ(STATE_BLOCK, rec->state);
	send(flow_reply(RATING_WP_REPLY, 0, sim::ip4("10.9.9.9"), PASS));
	// A client address or a port sends the reply to the HTTP table.
	send(flow_reply(RATING_WP_REPLY, kC, kS, PASS));
	rating_reply ported = flow_reply(RATING_WP_REPLY, 0, kS, PASS);
	ported.dst_port = htons(80);
	send(ported);
	EXPECT_EQ((Lines{ fn + "[WP]non-HTTP: host=ads.example --> PASS\n",
			  fn + "[WP]non-HTTP: host=ads.example --> BLOCK\n", fn + "no pct tracking found\n",
			  fn + "no tcp tracking found\n", fn + "no tcp tracking found\n" }),
		  kmodel_log());

	// IPv6 wants a NON-zero source for the flow branch; zero goes to HTTP.
	kmodel_log_clear();
	pct6_add("six.example", kServer6.data(), 0);
	send(flow_reply6(RATING_WP_REPLY, kClient6, kServer6, PASS));
	send(flow_reply6(RATING_WP_REPLY, sim::Addr6{}, kServer6, PASS));
	rating_reply bad = flow_reply6(RATING_WP_REPLY, kClient6, kServer6, PASS);
	bad.kind = 0;
	send(bad);
	EXPECT_EQ((Lines{ "<7>[handle6]: [WP]non-HTTP: host=six.example --> PASS\n",
			  "<7>[handle6]: no tcp tracking found\n",
			  "<3>[handle6]: unexpected packet type incoming to hook, 0, 3\n" }),
		  kmodel_log());
}

// An unknown verdict still writes the block-page address; a reply of
// nothing but a netlink header reads as all zeros.
TEST_F(HookTest, VerdictUrlCopyAndShortReplies)
{
	services(true, false);
	Conn c;
	handshake(c);
	ASSERT_TRUE(up(c.up(sim::ACK | sim::PSH, get_request("a.example"))).accepted());
	auto reqs = requests();
	ASSERT_EQ(1u, reqs.size());
	std::string longurl(600, 'u');
	reply(reqs[0], 7, longurl.c_str());
	EXPECT_EQ(std::string(511, 'u'), record(c)->redirect_url);
	EXPECT_EQ(STATE_RATING, record(c)->state);
	EXPECT_NE(nullptr, record(c)->held_skb) << "an unknown verdict keeps the copy";

	kmodel_log_clear();
	EXPECT_EQ(16, peer.send(0, nullptr, 0));
	EXPECT_EQ(Lines{ "<3>[receive_from_user]: unexpected packet type incoming to hook, 0, 0\n" },
		  kmodel_log());
}
