// IPv4 HTTP conversations through the forward hook and the verdict
// dispatcher, with a scripted daemon.
#include <gtest/gtest.h>

#include <string>

#include "tests/hooks/fixture.h"

#include "lists/tblock.h"
#include "lists/unblock.h"
#include "net/netfilter/nf_conntrack.h"

using namespace hooks_test;

namespace {

std::string pass_line(const char *svc, const char *verdict, const char *client = kClient)
{
	return std::string("<7>[receive_from_user]: [") + svc + "]HTTP: connection=[" + client +
	       " - 93.184.216.34] --> " + verdict + "\n";
}

} // namespace

// For each service mode: the request goes out whole, a PASS replays the
// held copy to the server, and the record is forgotten at the next packet.
TEST_F(HookTest, HttpPassReplaysTheHeldRequestInEveryMode)
{
	struct Case {
		bool wp, pc, br1;
		uint32_t service;
		const char *tag;
	} cases[] = {
		{ true, false, false, RATING_WP_REQUEST, "WP" },
		{ false, true, false, RATING_PC_REQUEST, "PC" },
		{ true, true, false, RATING_WP_REQUEST, "WP" },
		{ true, true, true, RATING_PC_REQUEST, "PC" }, // br1 is rated by PC
	};
	uint16_t port = 41000;
	for (const Case &k : cases) {
		SCOPED_TRACE(std::string(k.tag) + (k.br1 ? " on br1" : ""));
		services(k.wp, k.pc);
		lan = k.br1 ? r.br1() : r.br0();
		Conn c = Conn(port++);
		if (k.br1)
			c.client = sim::ip4("192.168.2.10");
		handshake(c);
		ASSERT_NE(nullptr, record(c));
		EXPECT_EQ(STATE_ESTAB, record(c)->state);

		Bytes request = c.up(sim::ACK | sim::PSH, get_request("www.example.com", "/index.html?q=1"));
		sim::Verdict v = up(request);
		EXPECT_TRUE(v.accepted()) << "the request itself goes on to the server";
		EXPECT_EQ(request, v.packet);
		EXPECT_EQ(STATE_RATING, record(c)->state);
		bool pc = k.service == RATING_PC_REQUEST;
		auto q = rated(http_request(c, k.service, "/index.html?q=1", "www.example.com",
					    pc ? &sim::kClientMac : nullptr));

		// Held back while rated, both ways.
		EXPECT_FALSE(down(c.down(sim::ACK)).accepted());
		EXPECT_FALSE(up(c.up(sim::ACK)).accepted());

		reply(q, PASS);
		EXPECT_EQ(Lines{ pass_line(k.tag, "PASS", k.br1 ? "192.168.2.10" : kClient) }, kmodel_log());
		EXPECT_EQ(std::vector<Bytes>{ request }, to_server()) << "the held copy is the request, byte for byte";
		EXPECT_EQ(STATE_PASS, record(c)->state);
		EXPECT_EQ(nullptr, record(c)->held_skb);

		size_t free_before = free_slots(tcp_table);
		EXPECT_TRUE(down(c.down(sim::ACK | sim::PSH, "HTTP/1.1 200 OK\r\n\r\n")).accepted());
		EXPECT_EQ(nullptr, record(c)) << "forgotten at the next packet";
		EXPECT_EQ(free_before + 1, free_slots(tcp_table));
		EXPECT_TRUE(up(c.up(sim::ACK)).accepted());
		EXPECT_EQ(0, kmodel_skb_stats_get().live);
	}
}

// BLOCK: the client gets an ACK and the byte-exact redirect, the server is reset, and the filter closes the
// connection with the client itself. Over IPv6 the dispatcher's ACK is the
// IPv4 one and fails, and the last ACK does not count the client's FIN.
TEST_F(HookTest, HttpBlockAnswersTheClientAndClosesTheConnection)
{
	services(true, false);
	const std::string fn6 = "<7>[forward_hook6]: ";
	for (bool v6 : { false, true }) {
		SCOPED_TRACE(v6 ? "IPv6" : "IPv4");
		Conn c = Conn(v6 ? 40100 : 40000, v6);
		handshake(c);
		std::string req = get_request("games.example.net");
		Conn before = c;
		ASSERT_TRUE(up(c.up(sim::ACK | sim::PSH, req)).accepted());
		auto reqs = requests();
		ASSERT_EQ(1u, reqs.size());
		EXPECT_EQ(uint32_t(RATING_WP_REQUEST), reqs[0].service);
		kmodel_log_clear();
		r.clear_sent();

		reply(reqs[0], BLOCK, kBlockUrl);
		auto client_got = to_client();
		Bytes redirect = expected_redirect(before, req, kBlockUrl);
		if (v6) {
			EXPECT_EQ(std::vector<Bytes>{ redirect }, client_got) << "no ACK: ack_client refuses IPv6";
			ASSERT_GE(kmodel_log().size(), 1u);
			EXPECT_EQ("<7>[rebuild_packet]: Invalid IP header\n", kmodel_log()[0]);
		} else {
			EXPECT_EQ(Lines{ pass_line("WP", "BLOCK") }, kmodel_log());
			EXPECT_EQ((std::vector<Bytes>{ forged(before, true, sim::ACK, before.sseq,
								     before.cseq + req.size()),
						       redirect }),
				  client_got);
		}
		EXPECT_TRUE(to_server().empty());
		EXPECT_EQ(STATE_REDIRECT, record(c)->state);
		EXPECT_EQ(std::string(kBlockUrl), record(c)->redirect_url);
		EXPECT_EQ(nullptr, record(c)->held_skb);

		// The server's answer never reaches the client, and nothing of the
		// client reaches the server any more.
		r.clear_sent();
		kmodel_log_clear();
		if (!v6) {
			EXPECT_FALSE(down(c.down(sim::ACK | sim::PSH, "HTTP/1.1 200 OK\r\n\r\n")).accepted());
			EXPECT_TRUE(r.sent().empty()) << "state 7 answers nothing to the server";
			EXPECT_FALSE(up(c.up(sim::ACK | sim::PSH, "more")).accepted());
		}

		// The client acknowledges the redirect: FIN+ACK to it.
		Conn at_ack = c;
		EXPECT_FALSE(up(c.up(sim::ACK)).accepted());
		EXPECT_EQ(std::vector<Bytes>{ forged(at_ack, true, sim::FIN | sim::ACK, at_ack.sseq, at_ack.cseq) },
			  to_client());
		EXPECT_EQ(STATE_FIN_WAIT1, record(c)->state);
		c.sseq++; // the filter's FIN

		// Server segments pass in FIN_WAIT1; the client's ACK moves on.
		EXPECT_TRUE(down(c.down(sim::ACK)).accepted());
		EXPECT_FALSE(up(c.up(sim::ACK)).accepted());
		EXPECT_EQ(STATE_FIN_WAIT2, record(c)->state);

		// The client's FIN: the last ACK (over IPv4 counting the FIN), and
		// the record goes.
		r.clear_sent();
		size_t free_before = free_slots(v6 ? tcp_table6 : tcp_table);
		Conn at_fin = c;
		EXPECT_FALSE(up(c.up(sim::FIN | sim::ACK)).accepted());
		EXPECT_EQ(std::vector<Bytes>{ forged(at_fin, true, sim::ACK, at_fin.sseq, at_fin.cseq + !v6) },
			  to_client());
		EXPECT_EQ(free_before + 1, free_slots(v6 ? tcp_table6 : tcp_table));
		EXPECT_EQ(v6 ? (Lines{ fn6 + "tcphoff = 40 \n", fn6 + "STATE_REDIRECT:\n", fn6 + "tcphoff = 40 \n",
				       fn6 + "STATE_FIN_WAIT1:\n", fn6 + "tcphoff = 40 \n", fn6 + "STATE_FIN_WAIT1:\n",
				       fn6 + "tcphoff = 40 \n", fn6 + "STATE_FIN_WAIT2:\n" })
			     : Lines{},
			  kmodel_log());
		EXPECT_EQ(0, kmodel_skb_stats_get().live);
	}
}

// A block decided by the hook (state 6): set when the server talks first
// over IPv4, reached over IPv6 by an undecodable request from a
// time-blocked device under PC. The server gets an RST over IPv4 and an
// ACK of its payload over IPv6; the client's next segment the block page.
TEST_F(HookTest, HttpBlockStateAnswersTheServerAndTheNextClientSegment)
{
	const std::string fn6 = "<7>[forward_hook6]: ";
	for (bool v6 : { false, true }) {
		SCOPED_TRACE(v6 ? "IPv6" : "IPv4");
		services(!v6, v6);
		if (v6) {
			ASSERT_EQ(22, r.write_proc("tblock_proc", "add 00:11:22:33:44:55\n"));
		}
		Conn c = Conn(v6 ? 40100 : 40000, v6);
		handshake(c);
		if (v6) {
			kmodel_log_clear();
			EXPECT_FALSE(up(c.up(sim::ACK, "BREW /pot HTTP/1.1\r\n\r\n")).accepted());
			EXPECT_EQ((Lines{ fn6 + "tcphoff = 40 \n", fn6 + "STATE_ESTAB:\n",
					  fn6 + "header can't be recognized\n" }),
				  kmodel_log());
		} else {
			record(c)->state = STATE_BLOCK;
		}
		EXPECT_EQ(STATE_BLOCK, record(c)->state);
		strcpy(record(c)->redirect_url, "http://b/");

		Conn before = c;
		kmodel_log_clear();
		EXPECT_FALSE(down(c.down(sim::ACK | sim::PSH, "0123456789")).accepted());
		if (v6) {
			EXPECT_EQ(std::vector<Bytes>{ forged(before, false, sim::ACK, before.cseq, before.sseq + 10) },
				  to_server());
		} else {
			EXPECT_EQ(Lines{ "<7>[forward_hook]: packet FROM server, reset it\n" }, kmodel_log());
			EXPECT_EQ(std::vector<Bytes>{ forged(before, false, sim::RST, before.cseq, 0) }, to_server());
			// A client segment that cannot be acknowledged (a reset) is
			// dropped and leaves the block waiting.
			r.clear_sent();
			EXPECT_FALSE(up(c.up(sim::RST | sim::ACK)).accepted());
			EXPECT_TRUE(r.sent().empty());
			EXPECT_EQ(STATE_BLOCK, record(c)->state);
		}

		r.clear_sent();
		std::string req = get_request("x.example");
		before = c;
		EXPECT_FALSE(up(c.up(sim::ACK | sim::PSH, req)).accepted());
		EXPECT_EQ((std::vector<Bytes>{ forged(before, true, sim::ACK, before.sseq, before.cseq + req.size()),
					       expected_redirect(before, req, "http://b/") }),
			  to_client());
		EXPECT_EQ(STATE_REDIRECT, record(c)->state);
		r.clear_sent();
	}
}

// WHITE_PASS marks the connection white: with PC only, a time-blocked
// device keeps that connection, and loses every other one.
TEST_F(HookTest, HttpWhitePassLetsATimeBlockedDeviceKeepItsConnection)
{
	services(false, true);
	ASSERT_EQ(22, r.write_proc("tblock_proc", "add 00:11:22:33:44:55\n"));
	kmodel_log_clear();
	Conn c;
	handshake(c);
	struct nf_conn *ct = r.conntrack(c.up(sim::ACK));
	EXPECT_EQ((struct nf_conntrack *)ct, record(c)->nfconn) << "recorded in SYN_RCVD";

	ASSERT_TRUE(up(c.up(sim::ACK | sim::PSH, get_request("kids.example"))).accepted());
	auto reqs = requests();
	ASSERT_EQ(1u, reqs.size());
	reply(reqs[0], WHITE_PASS);
	EXPECT_EQ(Lines{ pass_line("PC", "WHITE_PASS") }, kmodel_log());
	EXPECT_EQ(1, ct->white_mark);
	EXPECT_EQ(1u, to_server().size());
	EXPECT_EQ(STATE_WHITE_PASS, record(c)->state);

	EXPECT_TRUE(down(c.down(sim::ACK)).accepted());
	EXPECT_EQ(nullptr, record(c));
	// Untracked from now on: the white mark lets the device through.
	EXPECT_TRUE(up(c.up(sim::ACK | sim::PSH, get_request("kids.example", "/2"))).accepted());

	// Another connection of the same device is not white.
	Conn other = Conn(40001);
	EXPECT_FALSE(up(other.up(sim::ACK | sim::PSH, "GET / HTTP/1.1\r\n\r\n")).accepted());
	// Without a conntrack entry there is nothing to tell: dropped, logged.
	r.set_tracking(false);
	kmodel_log_clear();
	EXPECT_FALSE(up(other.up(sim::ACK)).accepted());
	EXPECT_EQ(Lines{ "<3>[is_white_conn]: no conntrack!\n\n" }, kmodel_log());
	r.set_tracking(true);

	// With both services on, untracked packets skip the lists.
	services(true, true);
	EXPECT_TRUE(up(other.up(sim::ACK)).accepted());
}

// The first request of a connection by service mode, device list and text:
// an exempted device passes without rating (an expired exemption is deleted
// and the request rated); an undecodable request is dropped from a
// time-blocked device or when WP is on, and goes on unrated otherwise; the
// IPv6 hook looks at the end of the text only when it holds 5 characters.
TEST_F(HookTest, HttpFirstRequestByServiceDeviceListAndText)
{
	enum { NONE, EXEMPT, EXPIRED, TBLOCK, UNTRACKED = -1 };
	const std::string req = get_request("a.example");
	struct {
		bool wp, pc, v6, br1, other;
		int list;
		std::string text;
		bool pass;
		int state;
		size_t rated;
	} rows[] = {
		{ 0, 1, 0, 0, 0, EXEMPT, req, true, STATE_PASS, 0 },
		{ 0, 1, 0, 0, 0, EXPIRED, req, true, STATE_RATING, 1 },
		{ 0, 1, 0, 0, 0, TBLOCK, "not a request at all\r\n\r\n", false, STATE_ESTAB, 0 },
		{ 0, 1, 0, 0, 1, TBLOCK, "garbage", true, STATE_ESTAB, 0 },
		{ 1, 1, 0, 0, 1, TBLOCK, "garbage", false, STATE_ESTAB, 0 },
		{ 0, 0, 0, 0, 0, NONE, req, true, UNTRACKED, 0 },
		{ 1, 0, 0, 1, 0, NONE, req, true, UNTRACKED, 0 },
		{ 0, 1, 1, 0, 0, NONE, "\r\n\r\n", false, STATE_ESTAB, 0 },
		{ 0, 1, 1, 0, 0, NONE, "x\r\n\r\n", true, STATE_ESTAB, 0 },
		{ 0, 1, 1, 0, 0, EXEMPT, "x\r\n\r\n", true, STATE_PASS, 0 },
		{ 1, 0, 1, 0, 0, NONE, "GET / HTTP/1.1\r\nHost: \r\n\r\n", false, STATE_ESTAB, 0 },
	};
	uint16_t port = 45000;
	for (auto &k : rows) {
		SCOPED_TRACE(testing::Message() << "row " << (&k - rows));
		services(k.wp, k.pc);
		int listed = k.list == TBLOCK ? tblk_insert(sim::kClientMac.data())
			   : k.list != NONE   ? ublk_insert(sim::kClientMac.data(), "", 0)
					      : 0;
		ASSERT_EQ(0, listed);
		r.advance(k.list == EXPIRED ? UBLK_EXPIRE_TICKS : 0);
		lan = k.br1 ? r.br1() : r.br0();
		const sim::Mac &mac = k.other ? kClient2Mac : sim::kClientMac;
		Conn c(port++, k.v6);
		if (k.br1)
			c.client = sim::ip4("192.168.2.10");
		handshake(c, mac);
		if (k.state == UNTRACKED) {
			EXPECT_EQ(nullptr, record(c));
		} else {
			EXPECT_EQ(k.pass, up(c.up(k.v6 ? sim::ACK : sim::ACK | sim::PSH, k.text), mac).accepted());
			EXPECT_EQ(k.state, record(c)->state);
		}
		EXPECT_EQ(k.rated, requests().size());
		ublk_flush(0);
		tblk_flush();
		lan = r.br0();
	}
}

// Replies that find nothing, come late, come twice, carry an unknown
// verdict or nothing at all: nothing is sent or freed twice. The block
// page's address is the record's bounded copy: a reply whose 512 address
// bytes hold no NUL gives a Location of 511 characters. A slot that a new
// connection takes over no longer holds the old connection's copy, so a
// reply for the new one replays nothing.
TEST_F(HookTest, HttpLateDuplicateUnknownAndUnboundedReplies)
{
	services(true, false);
	const std::string request = get_request("a.example");
	std::vector<rating_request> reqs;
	Conn conns[3] = { Conn(40000), Conn(40001), Conn(40002) }, before = conns[1];
	for (Conn &c : conns) {
		handshake(c);
		if (&c == &conns[1])
			before = c;
		ASSERT_TRUE(up(c.up(sim::ACK | sim::PSH, request)).accepted());
		reqs.push_back(requests().at(0));
	}
	Conn &c = conns[0];
	rating_request stranger = reqs[0];
	stranger.src_port = htons(1);
	kmodel_log_clear();
	reply(stranger, PASS);
	EXPECT_EQ(Lines{ "<7>[receive_from_user]: no tcp tracking found\n" }, kmodel_log());
	// An unknown verdict still writes the block-page address, cut to fit.
	reply(reqs[0], 7, std::string(600, 'u').c_str());
	EXPECT_EQ(std::string(511, 'u'), record(c)->redirect_url);
	EXPECT_EQ(STATE_RATING, record(c)->state);
	EXPECT_NE(nullptr, record(c)->held_skb) << "an unknown verdict keeps the copy";

	r.clear_sent();
	for (uint32_t v : { PASS, PASS, BLOCK })
		reply(reqs[0], v);
	EXPECT_EQ(1u, to_server().size()) << "the held copy is replayed once";
	EXPECT_TRUE(to_client().empty()) << "a late BLOCK has no copy to answer with";
	EXPECT_EQ(STATE_REDIRECT, record(c)->state) << "the late reply still acts on the state";

	rating_reply a = answer(reqs[1], BLOCK);
	memset(a.redirect_url, 'v', sizeof(a.redirect_url));
	r.clear_sent();
	send(a);
	auto got = to_client();
	ASSERT_EQ(2u, got.size());
	EXPECT_EQ(sim::hex(expected_redirect(before, request, std::string(511, 'v').c_str())), sim::hex(got[1]));

	// The third connection waits for its verdict, expires, and its slot
	// goes to the next connection; the reply for the new one finds no copy.
	Conn next(41001);
	struct tcp_tracking *slot = record(conns[2]);
	ASSERT_NE(nullptr, slot->held_skb);
	r.advance(60001);
	ASSERT_TRUE(up(next.up(sim::SYN)).accepted());
	ASSERT_EQ(slot, record(next));
	EXPECT_EQ(nullptr, slot->held_skb);
	EXPECT_EQ(0, kmodel_skb_stats_get().live);
	rating_request for_next = reqs[2];
	for_next.src_port = htons(next.cport);
	r.clear_sent();
	reply(for_next, PASS);
	EXPECT_TRUE(r.sent().empty());

	kmodel_log_clear();
	rating_reply bad = {};
	bad.service = 3;
	send(bad);
	bad.kind = 1;
	bad.service = 4;
	send(bad);
	EXPECT_EQ(16, peer.send(0, nullptr, 0)) << "a bare netlink header reads as all zeros";
	EXPECT_EQ((Lines{ "<3>[receive_from_user]: unexpected packet type incoming to hook, 0, 3\n",
			  "<3>[receive_from_user]: unexpected packet type incoming to hook, 1, 4\n",
			  "<3>[receive_from_user]: unexpected packet type incoming to hook, 0, 0\n" }),
		  kmodel_log());
}

// Where the headers lie in the buffer does not decide whether a segment
// is filtered: headers outside the linear area are pulled in and read. A
// data offset that runs past the linear bytes gives a negative payload
// length: no segment "without payload", and an empty request text.
TEST_F(HookTest, HttpHeadersOutsideTheLinearAreaAndLyingDataOffsets)
{
	services(true, false);
	for (bool v6 : { false, true }) {
		SCOPED_TRACE(v6 ? "IPv6" : "IPv4");
		const size_t thoff = v6 ? 40 : 20;
		// Only the first bytes of the network header are linear.
		Conn c = Conn(v6 ? 41100 : 41000, v6);
		for (uint8_t flags : { sim::SYN, sim::ACK })
			ASSERT_TRUE(r.forward(c.up(flags), lan, r.wan(), sim::kClientMac, 10).accepted());
		ASSERT_NE(nullptr, record(c));
		EXPECT_EQ(STATE_ESTAB, record(c)->state);
		// The payload is read from the linear bytes only: none here, an
		// undecodable request, which WP drops.
		EXPECT_FALSE(r.forward(c.up(sim::ACK | sim::PSH, get_request("far.example")), lan, r.wan(),
				       sim::kClientMac, 10).accepted());
		EXPECT_EQ(STATE_ESTAB, record(c)->state);
		EXPECT_TRUE(requests().empty());

		// Options claimed up to 60 bytes, 20 bytes behind the header.
		auto lying = [&](Conn &k, uint8_t flags) {
			Bytes p = k.up(flags, std::string(20, 'z'));
			p[thoff + 12] = 0xf0;
			return p;
		};
		Conn s = Conn(v6 ? 41101 : 41001, v6);
		EXPECT_TRUE(up(lying(s, sim::SYN)).accepted());
		EXPECT_EQ(nullptr, record(s)) << "a SYN with payload is not tracked";
		Conn e = Conn(v6 ? 41102 : 41002, v6);
		handshake(e);
		EXPECT_FALSE(up(lying(e, sim::ACK | sim::PSH)).accepted()) << "an empty text is no request: WP drops";
		EXPECT_EQ(STATE_ESTAB, record(e)->state);
		EXPECT_EQ(v6 ? 0u : 4u, record(e)->req_len);
		EXPECT_TRUE(requests().empty());
	}
	// A packet too short for its TCP header is no segment: left alone
	// (with PC only, an unlisted device's packet then passes every hook).
	services(false, true);
	Bytes cut = tcp(kClient, kServer, 40000, 80);
	cut.resize(30);
	cut[2] = 0, cut[3] = 30;
	EXPECT_TRUE(up(cut).accepted());
}

// What the hook leaves alone, and how it reads a request.
TEST_F(HookTest, HttpPacketsTheHookLeavesAloneAndRequestText)
{
	services(true, false);
	// A SYN with payload is not tracked; other ports are not looked at.
	Conn s = Conn(40010);
	EXPECT_TRUE(up(s.up(sim::SYN, "x")).accepted());
	EXPECT_EQ(nullptr, record(s));
	Conn o;
	o.sport = 8080;
	up(o.up(sim::SYN)); // the WP flow hook behind may drop it; untracked here
	EXPECT_EQ(nullptr, record(o));

	// A NUL ends the request text; the rest of the payload is not read.
	Conn n = Conn(40011);
	handshake(n);
	std::string req = get_request("nul.example");
	EXPECT_TRUE(up(n.up(sim::ACK | sim::PSH, req + std::string(1, '\0') + "Host: other\r\n\r\n")).accepted());
	auto reqs = requests();
	ASSERT_EQ(1u, reqs.size());
	EXPECT_STREQ("nul.example", reqs[0].info.host);
	EXPECT_EQ(req + "\r\n\r\n", std::string(record(n)->req_buf));
	EXPECT_EQ(req.size() + 4, record(n)->req_len);

	// No memory for the request: the segment goes on, the connection stays
	// established and the next segment tries again.
	Conn f = Conn(40013);
	handshake(f);
	kmodel_fail_alloc_flags(GFP_ATOMIC);
	EXPECT_TRUE(up(f.up(sim::ACK | sim::PSH, req)).accepted());
	kmodel_fail_alloc_flags(0);
	EXPECT_EQ(STATE_ESTAB, record(f)->state);
	EXPECT_TRUE(requests().empty());

	// A long request is cut at 2046 characters; req_len keeps the length.
	Conn l = Conn(40012);
	handshake(l);
	std::string big = "GET /" + std::string(2100, 'a') + " HTTP/1.1\r\nHost: long.example\r\n\r\n";
	up(l.up(sim::ACK | sim::PSH, big));
	EXPECT_EQ(big.size() + 4, record(l)->req_len);
	EXPECT_EQ(big.substr(0, 2046), std::string(record(l)->req_buf));
}
