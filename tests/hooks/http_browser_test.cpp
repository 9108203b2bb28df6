// Real browser traffic (curl and wget against Python's http.server through
// a namespace router, tests/data/browser/capture.sh) replayed through the
// IPv4 hook. The daemon answers each request at once, BLOCK for the hosts
// on its list; every connection's first request is rated once, allowed
// ones are replayed to the server and blocked ones get the redirect.
#include <gtest/gtest.h>

#include <map>
#include <set>
#include <string>

#include "tests/hooks/fixture.h"

#include "support/tshark.h"

using namespace hooks_test;

static const std::string kBrowserPcap = std::string(DNSHOOK_SOURCE_DIR) + "/tests/data/browser/browser.pcap";

TEST_F(HookTest, BrowserCaptureIsRatedOnceAndJudgedByTheBlockList)
{
	const std::set<std::string> blocked = { "games.blocked.test" };
	std::vector<Bytes> frames;
	sim::PcapLink link;
	ASSERT_TRUE(sim::pcap_read(kBrowserPcap, &frames, &link));
	ASSERT_EQ(sim::PCAP_ETHERNET, link);
	ASSERT_GT(frames.size(), 50u);
	services(true, false);
	r.route("10.61.1.0/24", r.br0(), KMODEL_OUT_HH, &sim::kClientMac);
	r.route("10.61.2.0/24", r.wan(), KMODEL_OUT_HH, &sim::kGatewayMac);

	std::map<uint16_t, std::string> rated; // client port -> host
	size_t redirects = 0, replays = 0, syns = 0;
	for (const Bytes &frame : frames) {
		Bytes ip(frame.begin() + 14, frame.end());
		size_t th = (ip[0] & 0xf) * 4;
		bool from_client = (ip[th + 2] << 8 | ip[th + 3]) == 80;
		if (from_client && (ip[th + 13] & 0x12) == 0x02)
			syns++;
		r.clear_sent();
		if (from_client)
			up(ip);
		else
			down(ip);
		for (const rating_request &q : requests()) {
			uint16_t cport = ntohs(q.src_port);
			EXPECT_EQ(0u, rated.count(cport)) << "rated twice: port " << cport;
			rated[cport] = q.info.host;
			bool block = blocked.count(q.info.host) > 0;
			reply(q, block ? BLOCK : PASS, "http://deny.test/");
			std::vector<Bytes> to_srv, to_cli; // the capture's client is 10.61.1.10
			for (const kmodel_tx &tx : r.sent()) {
				Bytes out(tx.frame.begin() + 14, tx.frame.end());
				(out[16] == 10 && out[17] == 61 && out[18] == 1 ? to_cli : to_srv).push_back(out);
			}
			r.clear_sent();
			if (block) {
				ASSERT_EQ(2u, to_cli.size());
				std::string page(to_cli[1].begin() + 40, to_cli[1].end());
				EXPECT_EQ(0u, page.find("HTTP/1.1 302 Found\r\nLocation: http://deny.test/\r\n"));
				EXPECT_TRUE(to_srv.empty());
				redirects++;
			} else {
				ASSERT_EQ(1u, to_srv.size());
				EXPECT_EQ(ip, to_srv[0]) << "the replay is the request as captured";
				EXPECT_TRUE(to_cli.empty());
				replays++;
			}
		}
	}
	// tshark reads the same capture: five connections, of which two to
	// the blocked host; nine requests in all, one rating per connection.
	EXPECT_EQ(5u, syns);
	EXPECT_EQ(5u, rated.size());
	EXPECT_EQ(2u, redirects);
	EXPECT_EQ(3u, replays);
	std::multiset<std::string> hosts;
	for (auto &kv : rated)
		hosts.insert(kv.second);
	EXPECT_EQ((std::multiset<std::string>{ "games.blocked.test", "games.blocked.test", "news.allowed.test",
					       "news.allowed.test", "shop.allowed.test" }),
		  hosts);

	if (have_tshark()) {
		TsharkRows rows;
		ASSERT_TRUE(tshark_fields(kBrowserPcap, "", "http.request", { "tcp.srcport", "http.host" }, &rows));
		std::map<uint16_t, std::string> first; // tshark's first request of each connection
		for (const auto &row : rows)
			first.emplace((uint16_t)std::stoul(row[0]), row[1]);
		EXPECT_EQ(9u, rows.size());
		EXPECT_EQ(first, rated);
	}
	EXPECT_EQ(0, kmodel_skb_stats_get().live);
}
