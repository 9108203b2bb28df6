// Socket buffers: the geometry's exact bounds (the kernel's panics), pulls
// of non-linear data, reads across fragments, copies and their references.
// Everything else of the model is followed by every filter test.
#include <gtest/gtest.h>

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

TEST(Skb, GeometryIsExactAndPanicsOnePastItsBounds)
{
	kmodel_reset();
	struct sk_buff *skb = alloc_skb(100, GFP_ATOMIC);
	ASSERT_NE(nullptr, skb);
	EXPECT_EQ(128, skb_tailroom(skb)); // rounded up to the cache line, as on the router
	skb_reserve(skb, 16);
	unsigned char *before = skb->data;
	EXPECT_EQ(before, skb_put(skb, 112)); // exactly the room left
	EXPECT_EQ(0, skb_tailroom(skb));
	EXPECT_DEATH(skb_put(skb, 1), "BUG");
	EXPECT_EQ(before - 16, skb_push(skb, 16)); // exactly the headroom
	EXPECT_DEATH(skb_push(skb, 1), "BUG");
	EXPECT_EQ(nullptr, skb_pull(skb, 129));
	EXPECT_EQ(before, skb_pull(skb, 16));
	skb_trim(skb, 200); // longer: nothing happens
	EXPECT_EQ(112u, skb->len);
	skb_trim(skb, 40);
	EXPECT_EQ(skb->data + 40, skb->tail);

	auto bytes = pattern(50);
	struct sk_buff *nl = kmodel_skb_build(bytes.data(), 50, 10);
	EXPECT_DEATH(skb_put(nl, 1), "BUG");
	EXPECT_DEATH(skb_trim(nl, 20), "BUG");
	EXPECT_EQ(0, pskb_trim(nl, 30)); // cuts into the fragments instead
	EXPECT_EQ(20u, nl->data_len);
	EXPECT_EQ(std::vector<uint8_t>(bytes.begin(), bytes.begin() + 30), kmodel_skb_bytes(nl));
	kfree_skb(nl);
	kfree_skb(skb);
	EXPECT_DEATH(kfree_skb(skb), "not live");
	EXPECT_EQ(0, kmodel_skb_stats_get().live);
}

TEST(Skb, PullTailMovesFragmentBytesIntoTheHead)
{
	kmodel_reset();
	auto bytes = pattern(300);
	// 20 linear bytes, fragments of 30, little room: pulls enlarge the head.
	struct sk_buff *skb = kmodel_skb_build(bytes.data(), bytes.size(), 20, 16, 30);
	skb->transport_header = skb->data + 20;
	skb->mac_header = skb->data - 14;
	struct {
		int pull; // __pskb_pull_tail's delta; 0: pskb_may_pull(301)
		bool ok;
		unsigned headlen;
	} steps[] = { { 81, true, 101 }, { 0, false, 101 }, { 200, false, 101 }, { -1, false, 101 }, { 199, true, 300 } };
	for (auto &s : steps) {
		bool ok = s.pull ? __pskb_pull_tail(skb, s.pull) != nullptr : pskb_may_pull(skb, 301);
		EXPECT_EQ(s.ok, ok) << s.pull;
		EXPECT_EQ(s.headlen, skb_headlen(skb)) << s.pull;
		EXPECT_EQ(300u, skb->len) << s.pull;
		EXPECT_EQ(bytes, kmodel_skb_bytes(skb)) << s.pull;
		EXPECT_EQ(0, memcmp(skb->data, bytes.data(), skb_headlen(skb))) << s.pull;
		// Header marks follow the data into the new head.
		EXPECT_EQ(20, skb->transport_header - skb->data) << s.pull;
		EXPECT_EQ(-14, skb->mac_header - skb->data) << s.pull;
	}
	EXPECT_EQ(0, skb_shinfo(skb)->nr_frags);

	// A head that cannot be enlarged: refused, the buffer as it was.
	struct sk_buff *b = kmodel_skb_build(bytes.data(), bytes.size(), 20, 16, 0);
	kmodel_fail_skb_alloc_nth(1);
	EXPECT_FALSE(pskb_may_pull(b, 80));
	EXPECT_EQ(20u, skb_headlen(b));
	EXPECT_EQ(bytes, kmodel_skb_bytes(b));
	kfree_skb(skb);
	kfree_skb(b);
	EXPECT_EQ(0, kmodel_skb_stats_get().live);
}

TEST(Skb, ReadsAcrossFragmentsStayInsideThePacket)
{
	kmodel_reset();
	auto bytes = pattern(100);
	struct sk_buff *skb = kmodel_skb_build(bytes.data(), bytes.size(), 10, 32, 7);
	uint8_t buf[100];
	for (int off = 0; off <= 100; off++)
		for (int len = 0; len <= 100; len += 1 + len / 4) {
			bool inside = off + len <= 100;
			ASSERT_EQ(inside ? 0 : -EFAULT, skb_copy_bits(skb, off, buf, len)) << off << "+" << len;
			if (inside) {
				ASSERT_EQ(0, memcmp(buf, bytes.data() + off, len)) << off << "+" << len;
			}
		}
	EXPECT_EQ(-EFAULT, skb_copy_bits(skb, 0, buf, -1));
	EXPECT_EQ(-EFAULT, skb_copy_bits(skb, -33, buf, 4)); // before the head
	EXPECT_EQ(nullptr, skb_header_pointer(skb, 98, 4, buf));
	// A linear window: a pointer into the packet; otherwise the copy.
	EXPECT_EQ(skb->data + 2, skb_header_pointer(skb, 2, 8, buf));
	EXPECT_EQ((void *)buf, skb_header_pointer(skb, 8, 8, buf));
	EXPECT_EQ(0, memcmp(buf, bytes.data() + 8, 8));
	for (int off = 0; off < 40; off += 5) // checksums over fragments at odd boundaries
		EXPECT_EQ(csum_fold(csum_partial(bytes.data() + off, 100 - off, 0)),
			  csum_fold(skb_checksum(skb, off, 100 - off, 0)))
			<< off;
	kfree_skb(skb);
}

TEST(Skb, CopyIsLinearAndTakesItsOwnReferences)
{
	kmodel_reset();
	sim::Router r;
	auto bytes = pattern(120);
	struct nf_conn *ct = kmodel_ct_new();
	struct dst_entry *dst = r.route("10.0.0.0/8", r.wan(), KMODEL_OUT_NONE);
	struct sk_buff *skb = kmodel_skb_build(bytes.data(), bytes.size(), 24, 40, 16);
	skb->transport_header = skb->data + 20;
	skb->dev = r.br0();
	kmodel_ct_attach(skb, ct, IP_CT_NEW);
	dst_hold(dst);
	skb_dst_set(skb, dst);
	struct sk_buff *c = skb_copy(skb, GFP_ATOMIC);
	ASSERT_NE(nullptr, c);
	EXPECT_EQ(0u, c->data_len);
	EXPECT_EQ(bytes, kmodel_skb_bytes(c));
	EXPECT_EQ(40, skb_headroom(c));
	EXPECT_EQ(20, c->transport_header - c->data);
	EXPECT_EQ(r.br0(), c->dev);
	EXPECT_EQ(skb->nfct, c->nfct);
	EXPECT_EQ(3, kmodel_ct_refs(ct));
	EXPECT_EQ(2, kmodel_dst_refs(dst));
	kmodel_fail_skb_alloc_nth(1);
	EXPECT_EQ(nullptr, skb_copy(skb, GFP_ATOMIC));
	kfree_skb(c);
	kfree_skb(skb);
	EXPECT_EQ(1, kmodel_ct_refs(ct)); // the table's
	EXPECT_EQ(0, kmodel_dst_refs(dst));
	EXPECT_EQ(0, kmodel_skb_stats_get().live);
}

} // namespace
