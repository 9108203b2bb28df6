// The packet builders judged by tshark, and the router's traversal.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "kmodel/host.h"
#include "kmodel/net.h"
#include "linux/if_ether.h"
#include "linux/netfilter.h"
#include "net/netfilter/nf_conntrack.h"
#include "sim/pcap.h"
#include "sim/router.h"
#include "support/tshark.h"

// Designated initializers leave the other fields at their defaults.
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"

namespace {

using namespace sim;

// tshark's view of each packet: checksum statuses (1 good, 0 bad) and a
// few decoded fields, one tab-separated line per packet.
std::vector<std::string> tshark_lines(const std::vector<Bytes> &pkts, PcapLink link,
				      const std::vector<std::string> &fields)
{
	std::string path = std::string(DNSHOOK_BINARY_DIR) + "/builders_test.pcap";
	EXPECT_TRUE(pcap_write(path, pkts, link));
	TsharkRows rows;
	EXPECT_TRUE(tshark_fields(path, kTsharkCheckChecksums, "", fields, &rows));
	std::vector<std::string> lines;
	for (const auto &row : rows) {
		std::string l;
		for (size_t i = 0; i < row.size(); i++)
			l += (i ? "\t" : "") + row[i];
		lines.push_back(l);
	}
	return lines;
}

TEST(Builders, TsharkValidatesChecksumsAndFields)
{
	if (!have_tshark())
		GTEST_SKIP() << "tshark is not installed; builder output not cross-checked";
	Ip4 v4{ .src = ip4("192.168.1.10"), .dst = ip4("93.184.216.34"), .options = { 0x94, 0x04, 0x00, 0x00 } }; // router alert
	Tcp t{ .sport = 40001, .seq = 0x11223344, .ack = 0x55667788, .flags = PSH | ACK,
	       .options = { 0x02, 0x04, 0x05, 0xb4, 0x01, 0x01, 0x04, 0x02 }, .payload = Bytes(201, 'a') };
	Udp u{ .payload = Bytes(33, 'd') };
	Ip6 v6{ .src = ip6("2001:db8::1"), .dst = ip6("2606:2800:220:1::1"), .ext = { { 0, Bytes(6) }, { 60, Bytes(14) } } };
	Tcp bad = t;
	bad.bad_checksum = true;
	Ip4 badip = v4;
	badip.bad_checksum = true;
	Udp badu = u;
	badu.bad_checksum = true;

	std::vector<Bytes> pkts = {ip4_tcp(v4, t), ip4_udp(v4, u), ip6_tcp(v6, t), ip6_udp(v6, u),
				   ip4_tcp(v4, bad), ip4_tcp(badip, t), ip6_udp(v6, badu)};
	auto rows = tshark_lines(pkts, PCAP_RAW_IP,
				 { "ip.checksum.status", "tcp.checksum.status", "udp.checksum.status", "tcp.seq_raw",
				   "tcp.ack_raw", "tcp.len", "ip.hdr_len", "ipv6.nxt" });
	std::vector<std::string> want = {
		"1\t1\t\t287454020\t1432778632\t201\t24\t",
		"1\t\t1\t\t\t\t24\t",
		"\t1\t\t287454020\t1432778632\t201\t\t0",
		"\t\t1\t\t\t\t\t0",
		"1\t0\t\t287454020\t1432778632\t201\t24\t",
		"0\t1\t\t287454020\t1432778632\t201\t24\t",
		"\t\t0\t\t\t\t\t0",
	};
	EXPECT_EQ(want, rows);

	// Framed packets decode as Ethernet with the right addresses.
	auto eth = tshark_lines({ether(kBr0Mac, kClientMac, pkts[0]), ether(kBr0Mac, kClientMac, pkts[2])},
				PCAP_ETHERNET, { "eth.src", "eth.type", "tcp.checksum.status" });
	EXPECT_EQ((std::vector<std::string>{"00:11:22:33:44:55\t0x0800\t1", "00:11:22:33:44:55\t0x86dd\t1"}), eth);
}

TEST(RouterSim, ForwardingTracksBothDirectionsInOneEntry)
{
	Router r;
	Ip4 out{ .src = ip4("192.168.1.10"), .dst = ip4("93.184.216.34") }, back{ .src = out.dst, .dst = out.src };
	Tcp c2s{ .sport = 40000, .dport = 80, .flags = SYN }, s2c{ .sport = 80, .dport = 40000, .flags = SYN | ACK };
	struct dst_entry *d = r.route("0.0.0.0/0", r.wan(), KMODEL_OUT_HH, &kGatewayMac);

	// Without the filter every packet passes unchanged, split or not.
	Bytes p = ip4_tcp(out, c2s);
	Verdict v = r.forward(p, r.br0(), r.wan(), kClientMac, 21);
	EXPECT_TRUE(v.accepted());
	EXPECT_EQ(unsigned(NF_INET_FORWARD), v.hook);
	EXPECT_EQ(p, v.packet);
	EXPECT_TRUE(r.forward(ip4_tcp(back, s2c), r.wan(), r.br0()).accepted());

	struct nf_conn *ct = r.conntrack(p);
	EXPECT_EQ(ct, r.conntrack(ip4_tcp(back, s2c)));
	Tcp other = c2s;
	other.sport = 40001;
	EXPECT_NE(ct, r.conntrack(ip4_tcp(out, other)));
	// The buffers are gone and with them their references.
	EXPECT_EQ(0, kmodel_skb_stats_get().live);
	EXPECT_EQ(1, kmodel_ct_refs(ct));
	EXPECT_EQ(0, kmodel_dst_refs(d));
	r.conntrack_expire_all();
	EXPECT_TRUE(kmodel_ct_destroyed(ct));
	EXPECT_TRUE(r.sent().empty());
}

// A hook that checks what the filter would see at FORWARD.
unsigned int probe_hook(unsigned int, struct sk_buff *skb, const struct net_device *in,
			const struct net_device *out, int (*)(struct sk_buff *))
{
	bool ok = skb->nfct && skb_dst(skb) && in && out && skb->dev == in &&
		  memcmp(eth_hdr(skb)->h_source, kClientMac.data(), 6) == 0 &&
		  skb_network_header(skb) == skb->data && skb->protocol == htons(ETH_P_IP);
	return ok ? NF_DROP : NF_ACCEPT;
}

TEST(RouterSim, HooksSeeAFullyPreparedBuffer)
{
	Router r;
	r.route("0.0.0.0/0", r.wan(), KMODEL_OUT_NONE);
	static struct nf_hook_ops ops = { {}, probe_hook, nullptr, PF_INET, NF_INET_FORWARD, 0 };
	ASSERT_EQ(0, nf_register_hook(&ops));
	Verdict v = r.forward(ip4_tcp(Ip4{ .src = ip4("192.168.1.10"), .dst = ip4("1.1.1.1") }, Tcp{}), r.br0(), r.wan());
	EXPECT_EQ(unsigned(NF_DROP), v.verdict);
	EXPECT_TRUE(v.packet.empty());
	EXPECT_EQ(0, kmodel_skb_stats_get().live);
	nf_unregister_hook(&ops);
}

} // namespace
