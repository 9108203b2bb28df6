// The HTTP connection tables: layout after init, failures, lookups from both
// directions, the shared sweep deadline and the deliberate asymmetries.
// Eviction order, refreshes and sweeps across the wrap are followed against
// the model in model_test.cpp.
#include <gtest/gtest.h>
#include <arpa/inet.h>

#include <string>
#include <vector>

#include "kmodel/host.h"
#include "kmodel/net.h"
#include "linux/ip.h"
#include "linux/ipv6.h"
#include "linux/skbuff.h"
#include "linux/tcp.h"
#include "track/dns_table.h"
#include "track/pct_table.h"
#include "track/ssl_table.h"
#include "track/tcp_table.h"
#include "track_view.h"

using namespace track_test;
using Lines = std::vector<std::string>;

namespace {

template <class Hdr, int Family> struct Pkt {
	Hdr ip{};
	tcphdr th{};
	Pkt(const std::string &s, const char *d, u16 sp, u16 dp)
	{
		inet_pton(Family, s.c_str(), &ip.saddr);
		inet_pton(Family, d, &ip.daddr);
		th.source = htons(sp);
		th.dest = htons(dp);
	}
	Pkt reversed() const
	{
		Pkt r = *this;
		std::swap(r.ip.saddr, r.ip.daddr);
		std::swap(r.th.source, r.th.dest);
		return r;
	}
};
using Pkt4 = Pkt<iphdr, AF_INET>;
using Pkt6 = Pkt<ipv6hdr, AF_INET6>;

Pkt4 client(int i) { return Pkt4("10.0." + std::to_string(i / 200) + "." + std::to_string(1 + i % 200), "93.184.216.34", 40000 + i, 80); }
Pkt6 client6(int i) { return Pkt6("2001:db8::" + std::to_string(i + 1), "2001:db8:80::1", 40000 + i, 80); }
tcp_tracking *add(const Pkt4 &p) { tcp_add(&p.ip, &p.th); return tcp_find(&p.ip, &p.th); }
tcp_tracking *add(const Pkt6 &p) { tcp_add6(&p.ip, &p.th); return tcp_find6(&p.ip, &p.th); }

class HttpTable : public ::testing::Test {
protected:
	void SetUp() override
	{
		kmodel_reset();
		ASSERT_EQ(0, cbt_tcp_init());
		kmodel_log_clear();
	}
	void TearDown() override { cbt_tcp_fini(); }
};

TEST(HttpTableInit, LayoutLogAndFailures)
{
	kmodel_reset();
	ASSERT_EQ(0, cbt_tcp_init());
	EXPECT_EQ(Lines{ "<6>[cbt_tcp_init]: init tcp module ..\n" }, kmodel_log());
	// The free lists and the sweep deadline after init are followed against
	// the model in model_test.cpp.
	for (tcp_table_block *t : { tcp_table, tcp_table6 }) {
		EXPECT_EQ(t->slots, t->slots_ptr);
		EXPECT_EQ(99, t->slots[99].slot);
		EXPECT_TRUE(kmodel_is_live(t->slots[99].req_buf));
	}
	EXPECT_EQ(202, kmodel_alloc_stats_get().live_blocks);
	cbt_tcp_fini();
	// Only the IPv6 table's block stays behind.
	EXPECT_EQ(1, kmodel_alloc_stats_get().live_blocks);
	EXPECT_EQ(sizeof(tcp_table_block), kmodel_alloc_stats_get().live_bytes);
	EXPECT_EQ("<6>[cbt_tcp_fini]: exit tcp module ..\n", kmodel_log().back());

	// Each allocation failing in turn: the line, -1, and nothing undone; an
	// unload after a failed load frees nothing twice. The other tables have
	// one block each.
	struct { int (*init)(void); void (*fini)(void); long nth; const char *line; long live; } fails[] = {
		{ cbt_tcp_init, cbt_tcp_fini, 1, "<3>[cbt_tcp_init]: init tcp module failed!\n", 0 },
		{ cbt_tcp_init, cbt_tcp_fini, 2, "<3>[table_init]: kmalloc failed!\n", 1 },
		{ cbt_tcp_init, cbt_tcp_fini, 60, "<3>[table_init]: kmalloc failed!\n", 59 },
		{ cbt_tcp_init, cbt_tcp_fini, 101, "<3>[table_init]: kmalloc failed!\n", 100 },
		{ cbt_tcp_init, cbt_tcp_fini, 102, "<3>[cbt_tcp_init]: init TCP module failed!\n", 101 },
		{ cbt_tcp_init, cbt_tcp_fini, 103, "<3>[table6_init]: kmalloc failed!\n", 102 },
		{ cbt_tcp_init, cbt_tcp_fini, 202, "<3>[table6_init]: kmalloc failed!\n", 201 },
		{ dns_init, nullptr, 1, "<3>[dns_init]: Init DNS module failed\n\n", 0 },
		{ pct_init, nullptr, 1, "<3>[pct_init]: init pct module failed\n", 0 },
		{ pct6_init, nullptr, 1, "<3>[pct6_init]: init pct module failed\n", 0 },
		{ ssl_init, nullptr, 1, "<3>[ssl_init]: init ssl moudle failed!\n", 0 },
		{ ssl6_init, nullptr, 1, "<3>[ssl6_init]: init ssl6 moudle failed!\n", 0 },
	};
	for (auto &f : fails) {
		SCOPED_TRACE(f.line);
		kmodel_reset();
		kmodel_fail_alloc_nth(f.nth);
		EXPECT_EQ(-1, f.init()) << f.nth;
		EXPECT_EQ(Lines{ f.line }, kmodel_log()) << f.nth;
		EXPECT_EQ(f.live, kmodel_alloc_stats_get().live_blocks) << f.nth;
		if (f.fini)
			f.fini();
	}
	EXPECT_EQ(nullptr, dns_table);
	EXPECT_EQ(nullptr, ssl6_table);
}

TEST_F(HttpTable, OneSweepDeadlineServesBothTables)
{
	Pkt6 old6 = client6(0), new6 = client6(1), third = client6(2);
	Pkt4 c = client(0);
	add(old6);
	kmodel_advance_jiffies(60001); // past the record and past the deadline
	add(c); // sweeps the (empty) IPv4 table, moves the deadline
	EXPECT_EQ(jiffies + 60000, tcp_next_sweep);
	add(new6);
	EXPECT_NE(nullptr, tcp_find6(&old6.ip, &old6.th)) << "the IPv6 sweep was not due";
	kmodel_advance_jiffies(60001);
	tcp_tracking *t = add(third);
	EXPECT_EQ(nullptr, tcp_find6(&old6.ip, &old6.th));
	EXPECT_EQ(nullptr, tcp_find6(&new6.ip, &new6.th));
	// The expired IPv4 record is still there: its table has not been swept.
	EXPECT_NE(nullptr, tcp_find(&c.ip, &c.th));
	EXPECT_EQ(LIST_POISON1, tcp_table6->slots[0].node.age_link.next);
	EXPECT_EQ(LIST_POISON2, tcp_table6->slots[0].node.age_link.prev);
	// Swept records went to the head of the free list, oldest first; the
	// newer of the two (slot 1) was on top and went to the third connection.
	EXPECT_EQ(0, view(&tcp_table6->pool, tcp_table6->slots).free_list[0]);
	EXPECT_EQ(1, t->slot);
}

TEST_F(HttpTable, IPv6RecordDeletedThroughTheIPv4TableStaysThere)
{
	tcp_tracking *rec6 = add(client6(0));
	tcp_delete(rec6);
	EXPECT_EQ(0u, rec6->node.expires);
	View v4 = view(&tcp_table->pool, tcp_table->slots);
	EXPECT_EQ(101u, v4.free_list.size());
	EXPECT_EQ(-1, v4.free_list[0]); // a slot of the IPv6 block
	EXPECT_EQ(99u, view(&tcp_table6->pool, tcp_table6->slots).free_list.size());
	// The next IPv4 connection gets that slot.
	EXPECT_EQ(rec6, add(client(0)));

	// With every IPv6 slot given away, an IPv6 add finds nothing to take
	// and tracks nothing rather than reuse a list head.
	for (int i = 1; i < 100; i++)
		tcp_delete(add(client6(i)));
	Pkt6 late = client6(200);
	EXPECT_EQ(0, tcp_add6(&late.ip, &late.th));
	EXPECT_EQ(nullptr, tcp_find6(&late.ip, &late.th));
	EXPECT_EQ(199u, view(&tcp_table->pool, tcp_table->slots).free_list.size());
	// Fini walks both tables' lists: every buffer freed once.
	cbt_tcp_fini();
	EXPECT_EQ(1, kmodel_alloc_stats_get().live_blocks);
	ASSERT_EQ(0, cbt_tcp_init());
}

TEST_F(HttpTable, ConntrackEntryIsRecordedWithoutAReference)
{
	tcp_tracking *rec = add(client(0));
	sk_buff skb{};
	nf_conntrack ct{};
	atomic_set(&ct.use, 1);
	skb.nfct = &ct;
	EXPECT_EQ(0, tcp_update_nfconn(rec, &skb));
	EXPECT_EQ(&ct, rec->nfconn);
	EXPECT_EQ(1, atomic_read(&ct.use));
	skb.nfct = nullptr;
	EXPECT_EQ(-1, tcp_update_nfconn(rec, &skb));
	EXPECT_EQ(nullptr, rec->nfconn);
	EXPECT_EQ(0, tcp_update_state6(rec, STATE_BLOCK));
	EXPECT_EQ(STATE_BLOCK, rec->state);
}

// The record owns its held copy: delete and slot reuse free it once; a
// copy already sent or freed (field cleared by its user) is not touched.
TEST_F(HttpTable, HeldCopyIsFreedExactlyOnce)
{
	auto live = [] { return kmodel_skb_stats_get().live; };
	long before = live();
	tcp_tracking *rec = add(client(0));
	rec->held_skb = alloc_skb(256, GFP_ATOMIC);
	ASSERT_NE(nullptr, rec->held_skb);
	ASSERT_GT(live(), before);
	tcp_delete(rec);
	EXPECT_EQ(nullptr, rec->held_skb);
	EXPECT_EQ(before, live());

	// Swept with a copy: the copy stays with the free slot until reuse.
	rec = add(client(0));
	rec->held_skb = alloc_skb(256, GFP_ATOMIC);
	kmodel_advance_jiffies(60001);
	EXPECT_EQ(rec, add(client(1))); // sweeps `rec` and takes its slot back
	EXPECT_EQ(nullptr, rec->held_skb);
	EXPECT_EQ(before, live());

	// A user that consumed the copy clears the field: nothing more is freed.
	rec->held_skb = alloc_skb(256, GFP_ATOMIC);
	kfree_skb(rec->held_skb);
	rec->held_skb = nullptr;
	tcp_delete(rec);
	EXPECT_EQ(before, live());

	// The IPv6 delete frees it too.
	tcp_tracking *rec6 = add(client6(0));
	rec6->held_skb = alloc_skb(256, GFP_ATOMIC);
	tcp_delete6(rec6);
	EXPECT_EQ(before, live());
}

} // namespace
