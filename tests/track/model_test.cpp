// The tables against a deliberately simple model (std::deque and std::list
// standing for the free list, the bucket chains and the age list) on random
// operation sequences, with the slot invariant checked after every step.
#include <gtest/gtest.h>

#include <array>
#include <deque>
#include <functional>
#include <list>
#include <random>

#include "kmodel/host.h"
#include "linux/ip.h"
#include "linux/tcp.h"
#include "reference.h"
#include "track/pct_table.h"
#include "track/tcp_table.h"
#include "track_view.h"

using namespace track_test;

namespace {

using Key = std::array<uint8_t, 12>; // address bytes and port bytes as on the wire

struct Model {
	u32 timeout;
	u32 deadline;
	std::deque<int> free_list;
	std::vector<std::list<int>> buckets = std::vector<std::list<int>>(TRACK_BUCKETS);
	std::list<int> age;
	std::vector<Key> key = std::vector<Key>(TRACK_SLOTS);
	std::vector<u32> expires = std::vector<u32>(TRACK_SLOTS);
	std::vector<int> keep = std::vector<int>(TRACK_SLOTS);
	std::vector<uint32_t> bucket_of = std::vector<uint32_t>(TRACK_SLOTS);

	explicit Model(u32 t) : timeout(t), deadline(jiffies + t)
	{
		for (int i = 0; i < TRACK_SLOTS; i++)
			free_list.push_back(i);
	}
	void release(int s)
	{
		buckets[bucket_of[s]].remove(s);
		age.remove(s);
		free_list.push_front(s);
	}
	void sweep()
	{
		if ((s32)(deadline - jiffies) >= 0)
			return;
		u32 now = jiffies;
		for (auto it = age.begin(); it != age.end();) {
			int s = *it++;
			if ((s32)(expires[s] - jiffies) >= 0) {
				deadline = expires[s];
				return;
			}
			if (!keep[s])
				release(s);
		}
		deadline = now + timeout;
	}
	// True when the add had to take over a record in use.
	bool add(const Key &k, uint32_t b, int kp)
	{
		bool evicted = false;

		sweep();
		if (free_list.empty()) {
			release(age.front());
			evicted = true;
		}
		int s = free_list.front();
		free_list.pop_front();
		buckets[b].push_front(s);
		bucket_of[s] = b;
		age.push_back(s);
		key[s] = k;
		keep[s] = kp;
		expires[s] = jiffies + timeout;
		return evicted;
	}
	void refresh(int s)
	{
		age.remove(s);
		age.push_back(s);
		expires[s] = jiffies + timeout;
	}
	int find(uint32_t b, const std::function<bool(const Key &)> &match) const
	{
		for (int s : buckets[b])
			if (match(key[s]))
				return s;
		return -1;
	}
	int random_in_use(std::mt19937 &rng) const
	{
		if (age.empty())
			return -1;
		auto it = age.begin();
		std::advance(it, rng() % age.size());
		return *it;
	}
};

template <class R> void expect_same(const Model &m, const track_pool *pool, const R *slots, u32 deadline)
{
	check_invariant(pool, slots);
	View v = view(pool, slots);
	ASSERT_EQ(std::vector<int>(m.free_list.begin(), m.free_list.end()), v.free_list);
	ASSERT_EQ(std::vector<int>(m.age.begin(), m.age.end()), v.age);
	for (int b = 0; b < TRACK_BUCKETS; b++)
		ASSERT_EQ(std::vector<int>(m.buckets[b].begin(), m.buckets[b].end()), v.buckets[b]) << "bucket " << b;
	for (int s : m.age)
		ASSERT_EQ(m.expires[s], slots[s].node.expires) << "slot " << s;
	ASSERT_EQ(m.deadline, deadline);
}

// Time steps around the time-out, so that records expire in runs.
u32 random_step(std::mt19937 &rng, u32 timeout)
{
	static const u32 parts[] = { 0, 1, 7, 100, 2500, 5000, 10000 };
	u32 step = timeout / 10000 * parts[rng() % 7];
	return rng() % 8 ? step : timeout + (u32)(rng() % 3) - 1;
}

struct Conn {
	iphdr ip{};
	tcphdr th{};
};

Conn conn_of(const Key &k, bool reverse)
{
	Conn c;
	memcpy(reverse ? &c.ip.daddr : &c.ip.saddr, &k[0], 4);
	memcpy(reverse ? &c.ip.saddr : &c.ip.daddr, &k[4], 4);
	memcpy(reverse ? &c.th.dest : &c.th.source, &k[8], 2);
	memcpy(reverse ? &c.th.source : &c.th.dest, &k[10], 2);
	return c;
}

// The published description: address words plus ports, as loaded natively.
uint32_t tcp_bucket_ref(const Key &k)
{
	return (le32(&k[0]) + le32(&k[4]) + le16(&k[8]) + le16(&k[10])) & 127;
}

TEST(TableModel, HttpTableFollowsTheModelAcrossTheWrap)
{
	kmodel_reset();
	ASSERT_EQ(0, cbt_tcp_init());
	Model m(TCP_TIMEOUT);
	std::mt19937 rng(1234);
	u32 start = jiffies;
	bool wrapped = false;
	int finds = 0, hits = 0, evictions = 0;

	for (int step = 0; step < 6000; step++) {
		// Few hosts and ports: duplicate adds and shared buckets are common.
		Key k{ 192, 168, 1, (uint8_t)(2 + rng() % 6), 10, 0, 0, (uint8_t)(1 + rng() % 3),
		       0xc3, (uint8_t)(0x50 + rng() % 4), 0, 80 };
		int op = rng() % 100;
		if (op < 30) {
			Conn c = conn_of(k, false);
			ASSERT_EQ(0, tcp_add(&c.ip, &c.th));
			evictions += m.add(k, tcp_bucket_ref(k), 0);
		} else if (op < 65) {
			bool reverse = rng() % 2;
			Conn c = conn_of(k, reverse);
			tcp_tracking *rec = tcp_find(&c.ip, &c.th);
			int want = m.find(tcp_bucket_ref(k), [&](const Key &r) { return r == k; });
			ASSERT_EQ(want, rec ? rec->slot : -1) << "step " << step;
			finds++;
			hits += rec != nullptr;
		} else if (op < 95) {
			int s = m.random_in_use(rng);
			if (s >= 0 && op < 69) {
				tcp_delete(&tcp_table->slots[s]);
				m.release(s);
				ASSERT_EQ(0u, tcp_table->slots[s].node.expires);
			} else if (s >= 0) {
				tcp_update_timeout(&tcp_table->slots[s]);
				m.refresh(s);
			}
		} else if ((step / 1000) % 2) {
			// Every other thousand steps the clock stands and the table fills.
			kmodel_advance_jiffies(random_step(rng, TCP_TIMEOUT));
			wrapped |= jiffies < start;
		}
		ASSERT_NO_FATAL_FAILURE(expect_same(m, &tcp_table->pool, tcp_table->slots, tcp_next_sweep));
	}
	EXPECT_TRUE(wrapped);
	EXPECT_GT(hits, finds / 5);
	EXPECT_GT(evictions, 10);
	cbt_tcp_fini();
}

TEST(TableModel, FlowTableWithKeptRecordsFollowsTheModel)
{
	kmodel_reset();
	ASSERT_EQ(0, pct_init());
	pct_hash_seed = 0x5eed1234;
	Model m(PCT_TIMEOUT);
	std::mt19937 rng(99);
	int kept_survivals = 0, evictions = 0;

	for (int step = 0; step < 6000; step++) {
		Key k{ 93, 184, (uint8_t)(rng() % 4), (uint8_t)(rng() % 64) };
		__be32 addr;
		memcpy(&addr, &k[0], 4);
		uint32_t b = jhash_1word_ref(&k[0], 0x5eed1234) & 127;
		int op = rng() % 100;
		if (op < 35) {
			int keep = rng() % 10 == 0;
			ASSERT_EQ(0, pct_add("host.example", addr, keep));
			evictions += m.add(k, b, keep);
		} else if (op < 65) {
			pct_tracking *rec = pct_find(addr);
			int want = m.find(b, [&](const Key &r) { return !memcmp(&r[0], &k[0], 4); });
			ASSERT_EQ(want, rec ? rec->slot : -1) << "step " << step;
		} else if (op < 85) {
			int s = m.random_in_use(rng);
			if (s >= 0 && op < 72) {
				pct_delete(&pct_table->slots[s]);
				m.release(s);
			} else if (s >= 0) {
				pct_update_timeout(&pct_table->slots[s]);
				m.refresh(s);
			}
		} else if ((step / 1000) % 2) {
			kmodel_advance_jiffies(random_step(rng, PCT_TIMEOUT));
		}
		for (int s : m.age)
			kept_survivals += m.keep[s] && (s32)(m.expires[s] - jiffies) < 0;
		ASSERT_NO_FATAL_FAILURE(expect_same(m, &pct_table->pool, pct_table->slots, pct_next_sweep));
	}
	EXPECT_GT(kept_survivals, 100);
	EXPECT_GT(evictions, 10);
	pct_fini();
}

} // namespace
