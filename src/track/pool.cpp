// The fixed-pool discipline of the tracking tables.
#include "track/pool.h"

static int track_kept(const struct track_node *n, int keep_offset)
{
	if (keep_offset < 0)
		return 0;
	return ((const u8 *)n)[keep_offset] != 0;
}

void track_pool_init(struct track_pool *pool)
{
	int i;

	INIT_LIST_HEAD(&pool->age_list);
	INIT_LIST_HEAD(&pool->free_list);
	for (i = 0; i < TRACK_BUCKETS; i++)
		INIT_LIST_HEAD(&pool->buckets[i]);
}

void track_pool_add_slot(struct track_pool *pool, struct track_node *n)
{
	list_add_tail(&n->hash_link, &pool->free_list);
	INIT_LIST_HEAD(&n->age_link);
	n->expires = 0;
}

void track_pool_release(struct track_pool *pool, struct track_node *n)
{
	list_move(&n->hash_link, &pool->free_list);
	list_del(&n->age_link);
}

void track_pool_sweep(struct track_pool *pool, const struct track_sweep_rule *rule)
{
	struct list_head *pos, *next;
	u32 now;

	if ((s32)(*rule->deadline - jiffies) >= 0)
		return;
	now = jiffies;
	// The age list is in refresh order, so the first live record ends it.
	list_for_each_safe(pos, next, &pool->age_list) {
		struct track_node *n = container_of(pos, struct track_node, age_link);

		if (!track_expired(n)) {
			*rule->deadline = n->expires;
			return;
		}
		if (track_kept(n, rule->keep_offset))
			continue;
		track_pool_release(pool, n);
	}
	*rule->deadline = now + rule->timeout;
}

struct track_node *track_pool_evict(struct track_pool *pool)
{
	struct track_node *n;

	if (!list_empty(&pool->free_list) || list_empty(&pool->age_list))
		return NULL;
	n = container_of(pool->age_list.next, struct track_node, age_link);
	track_pool_release(pool, n);
	return n;
}

struct track_node *track_pool_take(struct track_pool *pool, u32 b)
{
	struct track_node *n;

	// A table can lose every slot to another one's free list (tcp_delete
	// given an IPv6 record): then there is nothing to take or evict.
	if (list_empty(&pool->free_list))
		return NULL;
	n = container_of(pool->free_list.next, struct track_node, hash_link);
	list_move(&n->hash_link, &pool->buckets[b & TRACK_BUCKET_MASK]);
	list_add_tail(&n->age_link, &pool->age_list);
	return n;
}

void track_pool_refresh(struct track_pool *pool, struct track_node *n, u32 timeout)
{
	list_move_tail(&n->age_link, &pool->age_list);
	n->expires = jiffies + timeout;
}
