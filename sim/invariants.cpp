// Kept out of the fuzzers' coverage: a walk over every slot after every
// step would add features that say nothing about the filter.
#include "sim/invariants.h"

#include <algorithm>

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

namespace {

// Every slot of the blocks on exactly one of their bucket chains or free
// lists; the age lists hold exactly the slots in use. Counts live in flat
// arrays: the fuzzers check after every step.
template <typename Block>
const char *slots_on_one_list(std::initializer_list<Block *> blocks)
{
	const size_t kMax = 2 * TRACK_SLOTS;
	int chained[kMax] = {}, aged[kMax] = {};
	long in_use = 0, on_age = 0;
	if (blocks.size() * TRACK_SLOTS > kMax)
		return "too many blocks";
	for (Block *b : blocks)
		if (!b)
			return NULL;
	auto index = [&](const track_node *node) -> long {
		size_t base = 0;
		for (Block *b : blocks) {
			const char *first = (const char *)&b->slots[0].node;
			long off = (const char *)node - first;
			if (off >= 0 && off % (long)sizeof(b->slots[0]) == 0 &&
			    off / (long)sizeof(b->slots[0]) < TRACK_SLOTS)
				return (long)base + off / (long)sizeof(b->slots[0]);
			base += TRACK_SLOTS;
		}
		return -1;
	};
	auto walk = [&](struct list_head *head, bool age, bool used) -> const char * {
		int n = 0;
		for (struct list_head *pos = head->next; pos != head; pos = pos->next) {
			if (++n > kWalkLimit)
				return "a list that loops";
			long i = index(age ? container_of(pos, track_node, age_link)
					   : container_of(pos, track_node, hash_link));
			if (i < 0)
				return "a link to no slot";
			(age ? aged : chained)[i]++;
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
	for (size_t i = 0; i < blocks.size() * TRACK_SLOTS; i++) {
		if (chained[i] != 1)
			return chained[i] ? "a slot on two lists" : "a slot on no list";
		if (aged[i] > 1)
			return "a slot twice on the age list";
	}
	return in_use == on_age ? NULL : "the age list does not hold exactly the slots in use";
}

} // namespace

const char *tables(void)
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

const char *buffers(void)
{
	const sk_buff *held[2 * TRACK_SLOTS];
	size_t n = 0;
	for (struct tcp_table_block *t : {tcp_table, tcp_table6}) {
		if (!t)
			continue;
		for (const struct tcp_tracking &rec : t->slots) {
			if (!rec.held_skb)
				continue;
			if (!kmodel_skb_is_live(rec.held_skb))
				return "a held copy that is not a live buffer";
			held[n++] = rec.held_skb;
		}
	}
	std::sort(held, held + n);
	if (std::adjacent_find(held, held + n) != held + n)
		return "two slots hold one buffer";
	if (kmodel_skb_stats_get().live != (long)n)
		return "a live buffer that is not a held copy";
	return kmodel_bh_depth() == 0 ? NULL : "bottom halves left disabled";
}

} // namespace invariants
