#pragma once
// Invariants of the filter's tables and of the memory it holds, checked by
// the whole-filter fuzzer and the soak test after their steps. Each check
// returns NULL when it holds, else what is wrong.
#include <map>
#include <set>

#include "kmodel/host.h"
#include "kmodel/net.h"
#include "linux/list.h"
#include "track/dns_table.h"
#include "track/pct_table.h"
#include "track/ssl_table.h"
#include "track/tcp_table.h"

namespace invariants {

// More links than slots: a loop.
const int kWalkLimit = 4 * TRACK_SLOTS;

// Every slot of the blocks on exactly one of their bucket chains or free
// lists; the age lists hold exactly the slots in use.
template <typename Block>
const char *slots_on_one_list(std::initializer_list<Block *> blocks)
{
	std::map<const track_node *, int> chained, aged;
	for (Block *b : blocks) {
		if (!b)
			return NULL;
		for (auto &slot : b->slots)
			chained[&slot.node] = 0, aged[&slot.node] = 0;
	}
	long in_use = 0, on_age = 0;
	auto walk = [&](struct list_head *head, bool age, bool used) -> const char * {
		int n = 0;
		for (struct list_head *pos = head->next; pos != head; pos = pos->next) {
			if (++n > kWalkLimit)
				return "a list that loops";
			const track_node *node = age ? container_of(pos, track_node, age_link)
						     : container_of(pos, track_node, hash_link);
			auto &seen = age ? aged : chained;
			auto it = seen.find(node);
			if (it == seen.end())
				return "a link to no slot";
			it->second++;
			in_use += used;
			on_age += age;
		}
		return NULL;
	};
	for (Block *b : blocks) {
		for (auto &bucket : b->pool.buckets)
			if (const char *e = walk(&bucket, false, true))
				return e;
		if (const char *e = walk(&b->pool.free_list, false, false))
			return e;
		if (const char *e = walk(&b->pool.age_list, true, false))
			return e;
	}
	for (auto &entry : chained)
		if (entry.second != 1)
			return entry.second ? "a slot on two lists" : "a slot on no list";
	for (auto &entry : aged)
		if (entry.second > 1)
			return "a slot twice on the age list";
	return in_use == on_age ? NULL : "the age list does not hold exactly the slots in use";
}

// Every table; the two HTTP tables together, since slots move between them.
inline const char *tables(void)
{
	if (const char *e = slots_on_one_list({tcp_table, tcp_table6}))
		return e;
	if (const char *e = slots_on_one_list({dns_table}))
		return e;
	if (const char *e = slots_on_one_list({pct_table}))
		return e;
	if (const char *e = slots_on_one_list({pct6_table}))
		return e;
	if (const char *e = slots_on_one_list({ssl_table}))
		return e;
	return slots_on_one_list({ssl6_table});
}

// The held copies in the HTTP slots are live, distinct, and the only live
// buffers; bottom halves are enabled.
inline const char *buffers(void)
{
	std::set<const sk_buff *> held;
	for (struct tcp_table_block *t : {tcp_table, tcp_table6}) {
		if (!t)
			continue;
		for (const struct tcp_tracking &rec : t->slots) {
			if (!rec.held_skb)
				continue;
			if (!kmodel_skb_is_live(rec.held_skb))
				return "a held copy that is not a live buffer";
			if (!held.insert(rec.held_skb).second)
				return "two slots hold one buffer";
		}
	}
	if (kmodel_skb_stats_get().live != (long)held.size())
		return "a live buffer that is not a held copy";
	return kmodel_bh_depth() == 0 ? NULL : "bottom halves left disabled";
}

} // namespace invariants
