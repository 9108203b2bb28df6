// dnshook-rated end to end, in a network namespace of each test's own:
//
//   simulated router (filter)  --requests-->  test's netlink socket
//          ^                                     | group 1 (unit 2)
//          | kmodel_nl_send                      v
//   test: bytes compared  <--reply to our port--  dnshook-rated --policy
//
// The filter's requests of all four kinds are relayed to the daemon; its
// replies are compared byte for byte with ones built here from the
// request, then fed to the filter's dispatcher, whose effects are checked.
#include <gtest/gtest.h>

#include <signal.h>

#include <chrono>
#include <cstring>

#include "tests/hooks/fixture.h"
#include "tests/rated/daemon_harness.h"

using namespace hooks_test;
using rated_test::Channel;
using rated_test::Daemon;

namespace {

const char kPolicy[] =
	"block-page http://blocked.lan/?host={host}&url={url}&device={device}\n" // 1
	"[wp]\n"
	"default pass\n"
	"block games.example.net\n"        // 4
	"white video.example.net\n"        // 5
	"[pc]\n"
	"default pass\n"
	"[device 00:11:22:33:44:55 kids]\n"
	"default block\n"                  // 9
	"white homework.example.org\n";    // 10

// The reply as the channel's layout says, from the request's own bytes.
Bytes expected_reply(const Bytes &request, uint32_t verdict, const std::string &url)
{
	Bytes b(576, 0);
	std::copy(request.begin() + 8, request.begin() + 48, b.begin() + 8);
	uint32_t kind = 1, service;
	memcpy(&service, &request[4], 4);
	service++;
	memcpy(&b[0], &kind, 4);
	memcpy(&b[4], &service, 4);
	memcpy(&b[48], &verdict, 4);
	std::copy(url.begin(), url.end(), b.begin() + 52);
	return b;
}

class RatedE2E : public HookTest {
protected:
	void SetUp() override
	{
		HookTest::SetUp();
		if (!ns_.ok())
			GTEST_SKIP() << "needs root or user namespaces for a network namespace of its own (" << ns_.why() << ")";
		file_ = testing::TempDir() + "rated_e2e_" + std::to_string(getpid()) + ".policy";
		rated_test::write_file(file_, kPolicy);
	}
	void TearDown() override
	{
		unlink(file_.c_str());
		if (!getenv("RATED_KEEP_LOG"))
			unlink((file_ + ".log").c_str());
		HookTest::TearDown();
	}

	std::unique_ptr<Daemon> start(const std::vector<std::string> &args = {})
	{
		auto d = std::make_unique<Daemon>(file_, args);
		EXPECT_EQ("dnshook-rated: ready, policy " + file_ + " (6 rules)", d->ready_line());
		return d;
	}

	// The daemon's answer to one request: one 592-byte datagram, its
	// header's length 592 and type 0; the payload.
	Bytes ask(const Bytes &request)
	{
		chan_.request(request.data(), request.size());
		auto got = chan_.receive();
		if (!got) {
			ADD_FAILURE() << "no reply";
			return {};
		}
		EXPECT_EQ(592u, got->size());
		uint32_t len = 0;
		uint16_t type = 1;
		memcpy(&len, got->data(), 4);
		memcpy(&type, got->data() + 4, 2);
		EXPECT_EQ(592u, len);
		EXPECT_EQ(0, type);
		return Bytes(got->begin() + 16, got->end());
	}
	// Relays the one request the filter sent, checks the reply's bytes
	// and hands it to the filter.
	void rate(uint32_t verdict, const std::string &url)
	{
		auto reqs = requests();
		ASSERT_EQ(1u, reqs.size());
		Bytes req = bytes(reqs[0]);
		Bytes reply = ask(req);
		EXPECT_EQ(sim::hex(expected_reply(req, verdict, url)), sim::hex(reply));
		kmodel_log_clear();
		r.clear_sent();
		ASSERT_EQ(int(16 + reply.size()), peer.send(0, reply.data(), reply.size()));
	}

	rated_test::OwnNetns ns_;
	Channel chan_;
	std::string file_;
};

TEST_F(RatedE2E, FourKindsOfRequestAnsweredAndActedOn)
{
	auto daemon = start();
	const std::string fn = "<7>[receive_from_user]: ";

	// HTTP over IPv4, WP: blocked, the client gets the block page.
	services(true, false);
	Conn c;
	handshake(c);
	std::string get = get_request("games.example.net", "/play?level=2");
	Conn before = c;
	ASSERT_TRUE(up(c.up(sim::ACK | sim::PSH, get)).accepted());
	const std::string page = "http://blocked.lan/?host=games.example.net&url=games.example.net%2Fplay%3Flevel%3D2&device=";
	rate(2, page);
	EXPECT_EQ(Lines{ fn + "[WP]HTTP: connection=[192.168.1.10 - 93.184.216.34] --> BLOCK\n" }, kmodel_log());
	ASSERT_EQ(2u, to_client().size());
	EXPECT_EQ(expected_redirect(before, get, page.c_str()), to_client()[1]);
	EXPECT_EQ(STATE_REDIRECT, record(c)->state);

	// A WP flow after a lookup: white is answered as PASS, which lets it go.
	resolve("video.example.net", { "198.51.100.7" });
	Bytes flow = tcp(kClient, "198.51.100.7", 40100, 443);
	EXPECT_TRUE(dropped(up(flow)));
	rate(0, "");
	EXPECT_EQ(Lines{ fn + "[WP]non-HTTP: host=video.example.net --> PASS\n" }, kmodel_log());
	EXPECT_TRUE(up(flow).accepted());

	// HTTP over IPv6, PC, from the kids' device: white, the request replayed.
	services(false, true);
	Conn c6 = conn(40200, true);
	handshake(c6);
	Bytes seg = c6.up(sim::ACK | sim::PSH, get_request("homework.example.org", "/maths"));
	ASSERT_TRUE(up(seg).accepted());
	rate(1, "");
	EXPECT_EQ(Lines{}, kmodel_log());
	EXPECT_EQ(std::vector<Bytes>{ seg }, to_server());
	EXPECT_EQ(STATE_WHITE_PASS, record(c6)->state);

	// A PC flow from the kids' device: the device's default blocks it.
	resolve("chat.example.org", { "198.51.100.25" });
	Bytes chat = tcp(kClient, "198.51.100.25", 40300, 443);
	EXPECT_TRUE(dropped(up(chat)));
	rate(2, "http://blocked.lan/?host=chat.example.org&url=chat.example.org%2F&device=kids");
	EXPECT_EQ(Lines{ fn + "[PC]non-HTTP: host=chat.example.org --> BLOCK\n" }, kmodel_log());
	EXPECT_TRUE(dropped(up(chat)));
	EXPECT_EQ(6, ssl_records().back().state);

	EXPECT_EQ(0, daemon->stop(SIGTERM));
	const std::string f = file_;
	EXPECT_EQ((std::vector<std::string>{
			  "info: WP mac=- device=- client=192.168.1.10 host=games.example.net url=/play?level=2 BLOCK by " + f +
				  ":4: block games.example.net",
			  "info: WP mac=- device=- client=- host=video.example.net url=- PASS by " + f +
				  ":5: white video.example.net (as pass: a WP flow knows no white)",
			  "info: PC mac=00:11:22:33:44:55 device=kids client=2001:db8:1::10 host=homework.example.org url=/maths "
			  "WHITE_PASS by " + f + ":10: white homework.example.org",
			  "info: PC mac=00:11:22:33:44:55 device=kids client=192.168.1.10 host=chat.example.org url=/ BLOCK by " +
				  f + ":9: default block",
			  "warning: stopping: 4 requests answered, 0 replies dropped on purpose, 0 not yet due, 0 messages "
			  "ignored, 0 sends failed, 0 buffer overflows" }),
		  daemon->log());
}

// A request as the filter builds it, from the filter's record.
Bytes http_request_bytes(const char *host, uint32_t service = RATING_WP_REQUEST)
{
	rating_request q = {};
	q.service = service;
	q.family = RATING_FAMILY_INET;
	q.src_addr.ip = sim::ip4(kClient);
	q.dst_addr.ip = sim::ip4(kServer);
	q.src_port = htons(40000);
	q.dst_port = htons(80);
	strcpy(q.info.url, "/");
	strcpy(q.info.host, host);
	return bytes(q);
}

uint32_t verdict_of(const Bytes &reply)
{
	uint32_t v = 99;
	if (reply.size() == 576)
		memcpy(&v, &reply[48], 4);
	return v;
}

TEST_F(RatedE2E, IgnoresWhatItCannotAnswerAndReloadsOnlyGoodPolicies)
{
	auto daemon = start();
	Bytes good = http_request_bytes("games.example.net");
	Bytes reply_kind = good, svc3 = good;
	reply_kind[0] = 1;
	svc3[4] = 3;
	for (int twice = 0; twice < 2; twice++) {
		chan_.request(good.data(), 100);
		chan_.request(reply_kind.data(), reply_kind.size());
		chan_.request(svc3.data(), svc3.size());
		chan_.raw(Bytes(8, 0xff));
	}
	EXPECT_EQ(2u, verdict_of(ask(good))) << "still answering";
	EXPECT_FALSE(chan_.receive(100)) << "one reply, nothing for the rest";
	auto warnings = [&] {
		std::vector<std::string> w;
		for (const std::string &l : daemon->log())
			if (l.starts_with("warning: ignoring"))
				w.push_back(l);
		return w;
	};
	EXPECT_EQ((std::vector<std::string>{
			  "warning: ignoring messages not 576 bytes long (first one 100 bytes); further ones are only counted",
			  "warning: ignoring messages not a request (kind not 0) (first one 576 bytes); further ones are only counted",
			  "warning: ignoring messages for an unknown service (neither 2 nor 4) (first one 576 bytes); further ones "
			  "are only counted",
			  "warning: ignoring datagrams with a malformed netlink header; further ones are only counted" }),
		  warnings());

	// A bad policy: every error logged, the old one kept.
	rated_test::write_file(file_, "[wp]\npass games.example.net\nallow x\n[device 00:11 x]\n");
	daemon->signal(SIGHUP);
	ASSERT_TRUE(daemon->wait_log("reload of"));
	EXPECT_TRUE(daemon->wait_log("error: " + file_ + ":3: unknown keyword 'allow'"));
	EXPECT_TRUE(daemon->wait_log("error: " + file_ + ":4: bad MAC address '00:11'"));
	EXPECT_TRUE(daemon->wait_log("error: reload of " + file_ + " failed: 2 errors; keeping the policy in use (6 rules)"));
	EXPECT_EQ(2u, verdict_of(ask(good)));

	// A good one replaces it; requests sent around the signal are all answered.
	rated_test::write_file(file_, "[wp]\npass games.example.net\n");
	chan_.request(good.data(), good.size());
	daemon->signal(SIGHUP);
	chan_.request(good.data(), good.size());
	for (int i = 0; i < 2; i++)
		EXPECT_TRUE(chan_.receive()) << i;
	ASSERT_TRUE(daemon->wait_log("warning: reloaded " + file_ + " (1 rules)"));
	EXPECT_EQ(0u, verdict_of(ask(good)));
	EXPECT_EQ(0, daemon->stop(SIGINT));
	EXPECT_TRUE(daemon->wait_log("stopping: 5 requests answered, 0 replies dropped on purpose, 0 not yet due, 8 messages ignored"));
}

TEST_F(RatedE2E, DelayedAndDroppedReplies)
{
	Bytes req = http_request_bytes("games.example.net");
	{
		auto daemon = start({ "--delay", "300", "--quiet" });
		auto t0 = std::chrono::steady_clock::now();
		chan_.request(req.data(), req.size());
		ASSERT_TRUE(chan_.receive(3000));
		EXPECT_GE(std::chrono::steady_clock::now() - t0, std::chrono::milliseconds(300));
		EXPECT_EQ(0, daemon->stop(SIGTERM));
		EXPECT_EQ(std::vector<std::string>{}, daemon->log()) << "--quiet: errors only";
	}
	{
		auto daemon = start({ "--drop", "100" });
		chan_.request(req.data(), req.size());
		EXPECT_FALSE(chan_.receive(300));
		EXPECT_EQ(0, daemon->stop(SIGTERM));
	}
	auto daemon = start({ "--drop", "50", "--seed", "7", "--log-level", "error" });
	for (int i = 0; i < 20; i++)
		chan_.request(req.data(), req.size());
	int got = 0;
	while (chan_.receive(300))
		got++;
	EXPECT_GT(got, 0);
	EXPECT_LT(got, 20);
}

} // namespace
