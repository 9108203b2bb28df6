#pragma once
// Reads a table's lists back as slot numbers and checks the slot invariant:
// every slot is either free (on the free list only, age link poisoned or
// self-pointing) or in use (on one bucket chain and on the age list), and
// every list is a well-formed ring.
#include <gtest/gtest.h>

#include <deque>
#include <set>
#include <vector>

#include "track/pool.h"

namespace track_test {

struct View {
	std::vector<int> free_list;
	std::vector<std::vector<int>> buckets;
	std::vector<int> age;
};

// Slot number of a node, or -1 if it lies outside [base, base + count).
template <class R> int slot_of(const R *base, int count, const track_node *n)
{
	const R *r = (const R *)((const char *)n - offsetof(R, node));
	if (r < base || r >= base + count)
		return -1;
	return (int)(r - base);
}

// Walks one ring; fails on a broken back link or a ring longer than limit.
template <class R>
std::vector<int> ring(const R *base, int count, const list_head *head, size_t link_off)
{
	std::vector<int> out;
	const list_head *prev = head;
	for (const list_head *p = head->next; p != head; p = p->next) {
		EXPECT_EQ(prev, p->prev) << "broken back link";
		const track_node *n = (const track_node *)((const char *)p - link_off);
		out.push_back(slot_of(base, count, n));
		prev = p;
		if (out.size() > 1000) {
			ADD_FAILURE() << "ring does not close";
			break;
		}
	}
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
	std::multiset<int> in_buckets, on_age(v.age.begin(), v.age.end());
	for (auto &b : v.buckets)
		in_buckets.insert(b.begin(), b.end());
	std::multiset<int> free_set(v.free_list.begin(), v.free_list.end());
	EXPECT_EQ((size_t)count, v.free_list.size() + in_buckets.size());
	EXPECT_EQ(in_buckets, on_age);
	for (int i = 0; i < count; i++) {
		size_t f = free_set.count(i), u = in_buckets.count(i);
		EXPECT_EQ(1u, f + u) << "slot " << i;
		const list_head *age = &base[i].node.age_link;
		if (f) {
			EXPECT_TRUE((age->next == LIST_POISON1 && age->prev == LIST_POISON2) ||
				    (age->next == age && age->prev == age))
				<< "free slot " << i << " still linked by age";
		}
	}
}

} // namespace track_test
