// The named answers of a blocked connection: ACK to the client, the
// "302 Found" redirect, the server's reset (an ACK over IPv6), and their
// failure lines.
#include <gtest/gtest.h>

#include <cstdio>
#include <type_traits>

#include "tests/forge/fixture.h"

#include "forge/answer.h"
#include "forge/blkpage.h"
#include "forge/segment.h"
#include "net/dst.h"

using namespace forge_test;

namespace {

const char kUrl[] = "http://block.example/page?u=1";

Bytes page_for(const std::string &url)
{
	std::string s = "HTTP/1.1 302 Found\r\nLocation: " + url +
			"\r\nContent-Length: 0\r\nContent-Type: text/html\r\n\r\n";
	if (s.size() > 1023)
		s.resize(1023);
	return Bytes(s.begin(), s.end());
}

// The redirect answering t: PSH+ACK (ECE and CWR kept), window bytes 0xFF
// 0x7F, the urgent pointer kept; TTL 255, identification 0, no DF.
template <typename Ip>
Bytes redirect(Ip ip, const sim::Tcp &t, uint32_t datalen, const std::string &url)
{
	std::swap(ip.src, ip.dst);
	if constexpr (std::is_same_v<Ip, sim::Ip4>)
		ip.ttl = 255, ip.id = 0, ip.frag = 0;
	else
		ip.hop_limit = 64;
	sim::Tcp o;
	o.sport = t.dport, o.dport = t.sport, o.seq = t.ack, o.ack = t.seq + datalen;
	o.flags = (t.flags & (sim::ECE | sim::CWR)) | sim::PSH | sim::ACK;
	o.window = 0xFF7F; // the bytes 0xFF 0x7F
	o.urg_ptr = t.urg_ptr;
	o.payload = page_for(url);
	if constexpr (std::is_same_v<Ip, sim::Ip4>)
		return sim::ip4_tcp(ip, o);
	else
		return sim::ip6_tcp(ip, o);
}

// One's-complement sum of little-endian 32-bit words, as the router's
// partial checksums are.
uint32_t partial_le32(const uint8_t *p, size_t len)
{
	uint64_t s = 0;
	for (size_t i = 0; i < len; i += 4)
		s += p[i] | p[i + 1] << 8 | p[i + 2] << 16 | uint32_t(p[i + 3]) << 24;
	while (s >> 32)
		s = (s & 0xffffffff) + (s >> 32);
	return uint32_t(s);
}

std::string hexline(const char *fmt, unsigned a, unsigned b = 0)
{
	char buf[200];
	snprintf(buf, sizeof(buf), fmt, a, b);
	return buf;
}

} // namespace

TEST_F(Forge, AckAndRedirectAnswerTheWholeRequest)
{
	const sim::Ip4 ip = client_ip({ 0x94, 0x04, 0x00, 0x00 });
	const sim::Tcp t = request(400, sim::ACK | sim::PSH | sim::URG | sim::ECE);
	const Bytes in = sim::ip4_tcp(ip, t);
	struct sk_buff *skb = rx(in, 30);
	int refs = kmodel_ct_refs(ct);
	ASSERT_EQ(0, ack_client(skb));
	ASSERT_EQ(0, send_blkpage(kUrl, skb));
	EXPECT_EQ(refs, kmodel_ct_refs(ct));
	EXPECT_EQ(in, kmodel_skb_bytes(skb));
	// Unlike a reverse rebuild, the redirect keeps the copy's conntrack reference.
	struct sk_buff *copy = skb_copy(skb, GFP_ATOMIC);
	ASSERT_EQ(0, redirect_packet(copy, "x"));
	EXPECT_EQ(&ct->ct_general, copy->nfct);
	kfree_skb(copy);

	ASSERT_EQ(2u, sent_ip().size());
	EXPECT_EQ(sim::hex(reply4(ip, t, sim::ACK, t.seq + 400)), sim::hex(sent_ip()[0]));
	EXPECT_EQ(sim::hex(redirect(ip, t, 400, kUrl)), sim::hex(sent_ip()[1]));
	EXPECT_TRUE(kmodel_log().empty());
}

TEST_F(Forge, RedirectTextBoundsAndBareAck)
{
	const std::string long_url(1000, 'x');
	const sim::Tcp bare = request(0, sim::ACK);
	for (const std::string &url : { std::string(), long_url }) {
		r.clear_sent();
		ASSERT_EQ(0, send_blkpage(url.c_str(), rx(sim::ip4_tcp(client_ip(), bare))));
		EXPECT_EQ(sim::hex(redirect(client_ip(), bare, 0, url)), sim::hex(sent_ip().at(0)));
	}
	EXPECT_EQ(1023u, sent_ip()[0].size() - 40) << "the text is cut at 1023 bytes";
}

TEST_F(Forge, ResetServerIsAnRstOverIPv4AndAnAckOverIPv6)
{
	sim::Tcp s;
	s.sport = 80, s.dport = 40000, s.seq = 5000, s.ack = 0x0badf00d, s.flags = sim::ACK | sim::PSH;
	s.payload.assign(100, 'z');
	sim::Ip4 sip = client_ip();
	std::swap(sip.src, sip.dst);
	sim::Ip6 sip6 = client_ip6();
	std::swap(sip6.src, sip6.dst);
	ASSERT_EQ(0, reset_server(rx(sim::ip4_tcp(sip, s))));
	ASSERT_EQ(0, reset_server6(rx(sim::ip6_tcp(sip6, s))));

	ASSERT_EQ(2u, sent_ip().size());
	EXPECT_EQ(sim::hex(reply4(sip, s, sim::RST, 0)), sim::hex(sent_ip()[0]));
	EXPECT_EQ(sim::hex(reply6(sip6, s, sim::ACK, 5100)), sim::hex(sent_ip()[1]));
	EXPECT_EQ("eth0", r.sent()[0].dev);
}

TEST_F(Forge, IPv6AckAndRedirectWithDebugLines)
{
	const sim::Ip6 ip = client_ip6();
	const sim::Tcp t = request(200, sim::ACK | sim::PSH | sim::CWR);
	struct sk_buff *skb = rx(sim::ip6_tcp(ip, t));
	ASSERT_EQ(0, ack_client6(skb));
	ASSERT_EQ(0, send_blkpage6(kUrl, skb));

	ASSERT_EQ(2u, sent_ip().size());
	EXPECT_EQ(sim::hex(reply6(ip, t, sim::ACK, t.seq + 200)), sim::hex(sent_ip()[0]));
	const Bytes red = sent_ip()[1];
	EXPECT_EQ(sim::hex(redirect(ip, t, 200, kUrl)), sim::hex(red));

	// The values of the two debug lines, from the bytes on the wire.
	const uint8_t *th = red.data() + 40;
	unsigned check = th[16] | th[17] << 8;
	Bytes pseudo(red.begin() + 8, red.begin() + 40);
	pseudo.insert(pseudo.end(), { 0, 0, 0, 20, 0, 0, 0, 6 });
	uint16_t magic = sim::fold_complement(sim::sum16(th, 20, sim::sum16(pseudo.data(), pseudo.size())));
	Lines want = {
		hexline("<7>[redirect_packet6]: tcph->check = %x, sizeof(struct tcphdr) = 20, csum_partial = %x\n",
			check, partial_le32(th, 20)),
		hexline("<7>[redirect_packet6]: csum_ipv6_magic = %x\n", uint16_t(magic >> 8 | magic << 8)),
	};
	EXPECT_EQ(want, kmodel_log());

	// Behind extension headers the redirect is malformed but stays inside
	// its buffer: 60 header bytes and the text. Its checksum sums as many
	// bytes from the TCP header (at 48) as follow the fixed header, the
	// last 8 of them the request's own bytes behind the packet's end.
	r.clear_sent();
	const Bytes ext = sim::ip6_tcp(client_ip6({ { 0, { 1, 4, 0, 0, 0, 0 } } }), t);
	ASSERT_EQ(0, send_blkpage6(kUrl, rx(ext)));
	const Bytes out = sent_ip().at(0);
	const size_t n = page_for(kUrl).size();
	ASSERT_EQ(60 + n, out.size());
	Bytes seg(out.begin() + 48, out.end());
	seg.insert(seg.end(), ext.begin() + 60 + n, ext.begin() + 68 + n);
	seg[16] = seg[17] = 0;
	Bytes pseudo6(out.begin() + 8, out.begin() + 40);
	pseudo6.insert(pseudo6.end(), { 0, 0, uint8_t((20 + n) >> 8), uint8_t(20 + n), 0, 0, 0, 6 });
	uint16_t sum6 = sim::fold_complement(sim::sum16(seg.data(), seg.size(), sim::sum16(pseudo6.data(), pseudo6.size())));
	EXPECT_EQ(sum6, out[48 + 16] << 8 | out[48 + 17]);
}

TEST_F(Forge, FailuresLogTheirLinesAndSendNothingBroken)
{
	r.route("192.168.3.0/24", r.br1(), KMODEL_OUT_NONE);
	sim::Ip4 dead = client_ip();
	dead.src = sim::ip4("192.168.3.30");
	const std::string none = "<7>[output_packet]: No header cache and no neighbour, output failed!\n\n";
	sim::Tcp s = request(0);
	std::swap(s.sport, s.dport);

	EXPECT_EQ(-1, ack_client(rx(sim::ip4_tcp(dead, request(10)))));
	EXPECT_EQ(-1, send_blkpage(kUrl, rx(sim::ip4_tcp(dead, request(10)))));
	EXPECT_EQ(-1, reset_server(rx(sim::ip4_tcp(dead, s))));
	Lines want = { none, "<3>[ack_client]: ACK to client failed\n", none, "<3>[send_blkpage]: send block page failed!\n\n",
		       none, "<3>[reset_server]: RST to server failed\n\n" };
	EXPECT_EQ(want, kmodel_log());

	kmodel_log_clear();
	kmodel_fail_skb_alloc_nth(1);
	EXPECT_EQ(-1, send_blkpage(kUrl, rx(sim::ip4_tcp(client_ip(), request(10)))));
	kmodel_fail_skb_alloc_nth(1);
	EXPECT_EQ(-1, send_blkpage6(kUrl, rx(sim::ip6_tcp(client_ip6(), request(10)))));
	// Handed an IPv6 segment, the IPv4 acknowledgement refuses it.
	EXPECT_EQ(-1, ack_client(rx(sim::ip6_tcp(client_ip6(), request(10)))));
	want = { "<3>[send_blkpage]: skb_copy  error in function send_blkpage!\n\n",
		 "<3>[send_blkpage6]: skb_copy  error in send_blkpage6!\n\n",
		 "<7>[rebuild_packet]: Invalid IP header\n" };
	EXPECT_EQ(want, kmodel_log());
	EXPECT_TRUE(r.sent().empty());
}

// The rewrite's result is never asked: a page larger than the copy's room
// is cut to it, and a copy whose TCP header cannot be found goes out as it
// is, by the route it has.
TEST_F(Forge, RedirectIsSentWhateverTheRewriteMakesOfTheCopy)
{
	const sim::Tcp t = request(10);
	const Bytes in = sim::ip4_tcp(client_ip(), t);
	struct sk_buff *small = kmodel_skb_build(in.data(), in.size(), in.size(), 64, 0, 100);
	held.push_back(small);
	const std::string url(600, 'x');
	const size_t room = skb_end_pointer(small) - small->data - 40;
	ASSERT_LT(room, page_for(url).size());
	ASSERT_EQ(0, send_blkpage(url.c_str(), small));
	Bytes want = redirect(client_ip(), t, 10, url);
	ASSERT_EQ(1u, sent_ip().size());
	const Bytes got = sent_ip()[0];
	ASSERT_EQ(40 + room, got.size());
	EXPECT_EQ(Bytes(want.begin() + 40, want.begin() + 40 + room), Bytes(got.begin() + 40, got.end()));

	// A hop-by-hop header that runs past the packet: no TCP header.
	Bytes lost = sim::ip6_tcp(client_ip6(), request(0));
	lost[6] = 0;
	lost[41] = 200;
	kmodel_log_clear();
	EXPECT_EQ(-1, send_blkpage6(kUrl, rx(lost)));
	EXPECT_EQ((Lines{ "<7>[output_packet]: No header cache and no neighbour, output failed!\n\n",
			  "<3>[send_blkpage6]: send block page failed!\n\n" }),
		  kmodel_log());
}

TEST_F(Forge, RedirectWithoutRouteLeavesByTheInheritedRoute)
{
	sim::Ip4 stranger = client_ip();
	stranger.src = sim::ip4("10.9.9.9");
	struct sk_buff *skb = rx(sim::ip4_tcp(stranger, request(10)));
	struct dst_entry *wan = r.route("93.184.216.34", r.wan(), KMODEL_OUT_HH, &sim::kGatewayMac);
	skb_dst_set(skb, dst_clone(wan));
	EXPECT_EQ(-1, ack_client(skb));
	EXPECT_EQ(0, send_blkpage(kUrl, skb));
	// The inherited route's cached header, on the device it came in by.
	ASSERT_EQ(1u, r.sent().size());
	EXPECT_EQ("br0", r.sent()[0].dev);
	EXPECT_EQ(Bytes(sim::kGatewayMac.begin(), sim::kGatewayMac.end()),
		  Bytes(r.sent()[0].frame.begin(), r.sent()[0].frame.begin() + 6));
	EXPECT_EQ(sim::ip4("10.9.9.9"), *(const uint32_t *)&sent_ip()[0][16]);
}

TEST_F(Forge, HeaderClaimingMissingOptionsGoesBackBySequence)
{
	// A data offset of 15 words on a bare 20-byte header, checksum right.
	sim::Tcp liar = request(0);
	liar.options.clear();
	Bytes lie = sim::ip4_tcp(client_ip(), liar);
	lie[20 + 12] = 0xf0;
	lie[20 + 16] = lie[20 + 17] = 0;
	Bytes pseudo(lie.begin() + 12, lie.begin() + 20);
	pseudo.insert(pseudo.end(), { 0, 6, 0, 20 });
	uint16_t c = sim::fold_complement(sim::sum16(lie.data() + 20, 20, sim::sum16(pseudo.data(), 12)));
	lie[20 + 16] = c >> 8, lie[20 + 17] = c & 0xff;

	struct sk_buff *skb = rx(lie);
	ASSERT_EQ(0, ack_client(skb));
	ASSERT_EQ(0, send_blkpage(kUrl, skb));
	ASSERT_EQ(2u, sent_ip().size());
	// The payload length is the packet's end less the 60 bytes claimed:
	// -40, and the acknowledgement goes back by as much.
	const uint32_t ack = request(0).seq - 40;
	const Bytes want = { uint8_t(ack >> 24), uint8_t(ack >> 16), uint8_t(ack >> 8), uint8_t(ack) };
	for (const Bytes &p : sent_ip())
		EXPECT_EQ(want, Bytes(p.begin() + 28, p.begin() + 32));
}
