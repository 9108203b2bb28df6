// Socket buffers: pulls of non-linear data, copies, trims, bounds and
// accounting.
#include <gtest/gtest.h>

#include <numeric>
#include <vector>

#include "kmodel/host.h"
#include "kmodel/net.h"
#include "linux/errno.h"
#include "linux/skbuff.h"
#include "net/checksum.h"
#include "net/dst.h"
#include "net/netfilter/nf_conntrack.h"
#include "sim/router.h"

namespace {

std::vector<uint8_t> pattern(size_t n)
{
	std::vector<uint8_t> v(n);
	for (size_t i = 0; i < n; i++)
		v[i] = (uint8_t)(i * 7 + 3);
	return v;
}

class SkbTest : public ::testing::Test {
	void SetUp() override { kmodel_reset(); }
	void TearDown() override { kmodel_reset(); }
};

TEST_F(SkbTest, PullTailMovesFragmentBytesIntoTheHead)
{
	auto bytes = pattern(300);
	// 20 linear bytes, the rest in fragments of 30; little room at the end
	// of the head so the pull must enlarge it.
	struct sk_buff *skb = kmodel_skb_build(bytes.data(), bytes.size(), 20, 16, 30);
	skb->transport_header = skb->data + 20;
	skb->mac_header = skb->data - 14;
	ASSERT_EQ(280u, skb->data_len);
	EXPECT_EQ(0, skb_tailroom(skb));

	ASSERT_TRUE(pskb_may_pull(skb, 101));
	EXPECT_EQ(101u, skb_headlen(skb));
	EXPECT_EQ(199u, skb->data_len);
	EXPECT_EQ(300u, skb->len);
	EXPECT_EQ(bytes, kmodel_skb_bytes(skb));
	EXPECT_EQ(0, memcmp(skb->data, bytes.data(), 101));
	// Header marks follow the data into the new head.
	EXPECT_EQ(20, skb->transport_header - skb->data);
	EXPECT_EQ(-14, skb->mac_header - skb->data);
	EXPECT_EQ(16, skb_headroom(skb));

	// Asking for more than the packet holds fails and changes nothing.
	EXPECT_FALSE(pskb_may_pull(skb, 301));
	EXPECT_EQ(nullptr, __pskb_pull_tail(skb, 200));
	EXPECT_EQ(101u, skb_headlen(skb));
	EXPECT_EQ(bytes, kmodel_skb_bytes(skb));

	// Pulling everything leaves a linear buffer without fragments.
	ASSERT_NE(nullptr, __pskb_pull_tail(skb, 199));
	EXPECT_EQ(0u, skb->data_len);
	EXPECT_EQ(0, skb_shinfo(skb)->nr_frags);
	EXPECT_EQ(0, memcmp(skb->data, bytes.data(), 300));

	// A head that cannot be enlarged: NULL and the buffer as it was.
	struct sk_buff *b = kmodel_skb_build(bytes.data(), bytes.size(), 20, 16, 0);
	kmodel_fail_skb_alloc_nth(1);
	EXPECT_FALSE(pskb_may_pull(b, 80));
	EXPECT_EQ(20u, skb_headlen(b));
	EXPECT_EQ(bytes, kmodel_skb_bytes(b));
	EXPECT_EQ(1, kmodel_skb_stats_get().failed_allocs);

	kfree_skb(skb);
	kfree_skb(b);
	EXPECT_EQ(0, kmodel_skb_stats_get().live);
}

TEST_F(SkbTest, ReadsAcrossFragmentsStayInsideThePacket)
{
	auto bytes = pattern(100);
	struct sk_buff *skb = kmodel_skb_build(bytes.data(), bytes.size(), 10, 32, 7);
	uint8_t buf[100];

	// Every window, linear or not, reads the right bytes.
	for (int off = 0; off < 100; off += 3)
		for (int len = 0; off + len <= 100; len += 11) {
			ASSERT_EQ(0, skb_copy_bits(skb, off, buf, len)) << off << "+" << len;
			ASSERT_EQ(0, memcmp(buf, bytes.data() + off, len)) << off << "+" << len;
		}
	EXPECT_EQ(-EFAULT, skb_copy_bits(skb, 95, buf, 6));
	EXPECT_EQ(-EFAULT, skb_copy_bits(skb, 0, buf, -1));
	EXPECT_EQ(-EFAULT, skb_copy_bits(skb, -33, buf, 4)); // before the head
	EXPECT_EQ(nullptr, skb_header_pointer(skb, 98, 4, buf));
	// Linear window: a pointer into the packet; otherwise the copy.
	EXPECT_EQ(skb->data + 2, skb_header_pointer(skb, 2, 8, buf));
	EXPECT_EQ((void *)buf, skb_header_pointer(skb, 8, 8, buf));
	EXPECT_EQ(0, memcmp(buf, bytes.data() + 8, 8));

	// The checksum over fragments at odd boundaries folds like the flat one.
	for (int off = 0; off < 40; off += 5) {
		__wsum flat = csum_partial(bytes.data() + off, 100 - off, 0);
		EXPECT_EQ(csum_fold(flat), csum_fold(skb_checksum(skb, off, 100 - off, 0))) << off;
	}
	kfree_skb(skb);
}

TEST_F(SkbTest, CopyIsLinearAndTakesItsOwnReferences)
{
	sim::Router r;
	auto bytes = pattern(120);
	struct nf_conn *ct = kmodel_ct_new();
	struct dst_entry *dst = r.route("10.0.0.0/8", r.wan(), KMODEL_OUT_NONE);
	struct sk_buff *skb = kmodel_skb_build(bytes.data(), bytes.size(), 24, 40, 16);
	skb->transport_header = skb->data + 20;
	skb->mac_header = skb->data - 14;
	skb->dev = r.br0();
	skb->protocol = htons(ETH_P_IP);
	kmodel_ct_attach(skb, ct, IP_CT_NEW);
	dst_hold(dst);
	skb_dst_set(skb, dst);
	EXPECT_EQ(2, kmodel_ct_refs(ct));
	EXPECT_EQ(1, kmodel_dst_refs(dst));

	struct sk_buff *c = skb_copy(skb, GFP_ATOMIC);
	ASSERT_NE(nullptr, c);
	EXPECT_EQ(0u, c->data_len);
	EXPECT_EQ(bytes, kmodel_skb_bytes(c));
	EXPECT_EQ(40, skb_headroom(c));
	EXPECT_EQ(20, c->transport_header - c->data);
	EXPECT_EQ(-14, c->mac_header - c->data);
	EXPECT_EQ(r.br0(), c->dev);
	EXPECT_EQ(htons(ETH_P_IP), c->protocol);
	EXPECT_EQ(skb->nfct, c->nfct);
	EXPECT_EQ(3, kmodel_ct_refs(ct));
	EXPECT_EQ(dst, skb_dst(c));
	EXPECT_EQ(2, kmodel_dst_refs(dst));

	// Failure injection hits the copy; nothing leaks.
	kmodel_fail_skb_alloc_nth(1);
	EXPECT_EQ(nullptr, skb_copy(skb, GFP_ATOMIC));
	EXPECT_EQ(2, kmodel_skb_stats_get().live);

	// Freeing drops the conntrack and route references; the last one
	// (the table's) destroys the entry.
	kfree_skb(c);
	kfree_skb(skb);
	EXPECT_EQ(1, kmodel_ct_refs(ct));
	EXPECT_EQ(0, kmodel_dst_refs(dst));
	EXPECT_FALSE(kmodel_ct_destroyed(ct));
	kmodel_ct_remove(ct);
	EXPECT_TRUE(kmodel_ct_destroyed(ct));
	EXPECT_EQ(1, kmodel_ct_destroy_count());
	EXPECT_EQ(0, kmodel_skb_stats_get().live);
	EXPECT_EQ(2, kmodel_skb_stats_get().frees);
}

TEST_F(SkbTest, GeometryChangesAreBounded)
{
	struct sk_buff *skb = alloc_skb(100, GFP_ATOMIC);
	ASSERT_NE(nullptr, skb);
	// The size is rounded up to the cache line, as on the router.
	EXPECT_EQ(128, skb_tailroom(skb));
	skb_reserve(skb, 16);
	unsigned char *before = skb->data;
	EXPECT_EQ(before, skb_put(skb, 60));
	EXPECT_EQ(before + 60, skb_tail_pointer(skb));
	EXPECT_EQ(before - 14, skb_push(skb, 14));
	EXPECT_EQ(74u, skb->len);
	EXPECT_EQ(nullptr, skb_pull(skb, 75));
	EXPECT_EQ(before, skb_pull(skb, 14));
	skb_trim(skb, 80); // longer: nothing happens
	EXPECT_EQ(60u, skb->len);
	skb_trim(skb, 40);
	EXPECT_EQ(40u, skb->len);
	EXPECT_EQ(skb->data + 40, skb->tail);

	EXPECT_DEATH(skb_put(skb, 200), "BUG");
	EXPECT_DEATH(skb_push(skb, 17), "BUG");
	auto bytes = pattern(50);
	struct sk_buff *nl = kmodel_skb_build(bytes.data(), 50, 10);
	EXPECT_DEATH(skb_put(nl, 1), "BUG");
	EXPECT_DEATH(skb_trim(nl, 20), "BUG");
	// pskb_trim cuts into the fragments instead.
	EXPECT_EQ(0, pskb_trim(nl, 30));
	EXPECT_EQ(30u, nl->len);
	EXPECT_EQ(20u, nl->data_len);
	EXPECT_EQ(std::vector<uint8_t>(bytes.begin(), bytes.begin() + 30), kmodel_skb_bytes(nl));

	kfree_skb(nl);
	kfree_skb(skb);
	EXPECT_DEATH(kfree_skb(skb), "not live");
	kfree_skb(nullptr);
	EXPECT_EQ(0, kmodel_skb_stats_get().live);
	EXPECT_EQ(2, kmodel_skb_stats_get().total_allocs);
}

} // namespace
