#pragma once
// Reads a table's lists back as slot numbers and checks the slot invariant:
// a slot is free (on the free list only, age link poisoned or self-pointing)
// or in use (on one bucket chain and on the age list); every list is a ring.
#include <gtest/gtest.h>

#include <set>
#include <vector>

#include "track/pool.h"

namespace track_test {

struct View {
	std::vector<int> free_list, age;
	std::vector<std::vector<int>> buckets;
};

// One ring as slot numbers, -1 for a record outside [base, base + count).
template <class R> std::vector<int> ring(const R *base, int count, const list_head *head, size_t link_off)
{
	std::vector<int> out;
	const list_head *prev = head;
	for (const list_head *p = head->next; p != head && out.size() <= 1000; prev = p, p = p->next) {
		EXPECT_EQ(prev, p->prev) << "broken back link";
		const R *r = (const R *)((const char *)p - link_off - offsetof(R, node));
		out.push_back(r < base || r >= base + count ? -1 : (int)(r - base));
	}
	EXPECT_LE(out.size(), 1000u) << "ring does not close";
	EXPECT_EQ(prev, head->prev);
	return out;
}

template <class R> View view(const track_pool *pool, const R *base, int count = TRACK_SLOTS)
{
	View v;
	v.free_list = ring(base, count, &pool->free_list, offsetof(track_node, hash_link));
	v.age = ring(base, count, &pool->age_list, offsetof(track_node, age_link));
	for (int b = 0; b < TRACK_BUCKETS; b++)
		v.buckets.push_back(ring(base, count, &pool->buckets[b], offsetof(track_node, hash_link)));
	return v;
}

// The slot invariant for a table that owns exactly its own `count` slots.
template <class R> void check_invariant(const track_pool *pool, const R *base, int count = TRACK_SLOTS)
{
	View v = view(pool, base, count);
	std::multiset<int> used, on_age(v.age.begin(), v.age.end()), free_set(v.free_list.begin(), v.free_list.end());
	for (auto &b : v.buckets)
		used.insert(b.begin(), b.end());
	EXPECT_EQ((size_t)count, free_set.size() + used.size());
	EXPECT_EQ(used, on_age);
	for (int i = 0; i < count; i++) {
		EXPECT_EQ(1u, free_set.count(i) + used.count(i)) << "slot " << i;
		const list_head *age = &base[i].node.age_link;
		bool unlinked = (age->next == LIST_POISON1 && age->prev == LIST_POISON2) ||
				(age->next == age && age->prev == age);
		EXPECT_TRUE(!free_set.count(i) || unlinked) << "free slot " << i << " still linked by age";
	}
}

} // namespace track_test
