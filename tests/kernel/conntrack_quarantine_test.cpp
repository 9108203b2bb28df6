// Destroyed conntrack entries: the model keeps the last 4096 poisoned, where
// a late put or attach stops the program but the white mark may still be
// written (the filter's records hold entries without a reference), and hands
// older ones out again as new entries, so that a long run stays flat.
#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "kmodel/host.h"
#include "kmodel/net.h"
#include "linux/skbuff.h"
#include "net/netfilter/nf_conntrack.h"

namespace {

TEST(ConntrackQuarantine, KeepsTheLastDestroyedEntriesPoisonedAndReusesOlderOnes)
{
	const int kQuarantine = 4096, kOlder = 10;
	kmodel_reset();
	std::vector<nf_conn *> cts;
	for (int i = 0; i < kQuarantine + kOlder; i++)
		cts.push_back(kmodel_ct_new());
	nf_conn *live = kmodel_ct_new();
	for (nf_conn *ct : cts)
		kmodel_ct_remove(ct);
	EXPECT_EQ(kQuarantine + kOlder, kmodel_ct_destroy_count());
	EXPECT_EQ(kQuarantine, kmodel_ct_quarantined());
	int destroyed_older = 0, destroyed_recent = 0;
	for (int i = 0; i < (int)cts.size(); i++)
		(i < kOlder ? destroyed_older : destroyed_recent) += kmodel_ct_destroyed(cts[i]);
	EXPECT_EQ(0, destroyed_older);
	EXPECT_EQ(kQuarantine, destroyed_recent);
	EXPECT_FALSE(kmodel_ct_destroyed(live));

	// A late put of a quarantined entry, or attaching one to a buffer,
	// stops the program; a live entry attaches as before.
	struct sk_buff *skb = alloc_skb(64, GFP_ATOMIC);
	ASSERT_NE(nullptr, skb);
	EXPECT_DEATH(kmodel_ct_remove(cts.back()), "");
	EXPECT_DEATH(kmodel_ct_attach(skb, cts[kOlder], IP_CT_NEW), "");
	kmodel_ct_attach(skb, live, IP_CT_NEW);
	EXPECT_EQ(2, kmodel_ct_refs(live));
	kfree_skb(skb);
	EXPECT_EQ(1, kmodel_ct_refs(live));

	// A late WHITE_PASS writes the mark into a destroyed entry (no report
	// under AddressSanitizer); an entry older than the quarantine comes
	// back zeroed as the next new one, and can mark a later connection.
	cts.back()->white_mark = 1;
	cts[0]->white_mark = 1;
	nf_conn *again = kmodel_ct_new();
	EXPECT_NE(cts.begin() + kOlder, std::find(cts.begin(), cts.begin() + kOlder, again));
	EXPECT_EQ(0, again->white_mark);
	EXPECT_EQ(1, kmodel_ct_refs(again));
	EXPECT_FALSE(kmodel_ct_destroyed(again));

	kmodel_reset();
	EXPECT_EQ(0, kmodel_ct_destroy_count());
	EXPECT_EQ(0, kmodel_ct_quarantined());
}

} // namespace
