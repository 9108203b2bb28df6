#pragma once
// The pool discipline shared by every tracking table: a fixed block of
// records that move between the free list and (bucket chain + age list),
// never allocated or freed after start-up.
//
// A table block is a track_pool header followed by slots_ptr and the
// records; every record starts with a track_node.
#include "linux/jiffies.h"
#include "linux/list.h"
#include "linux/types.h"

#define TRACK_BUCKETS 128
#define TRACK_BUCKET_MASK (TRACK_BUCKETS - 1)
#define TRACK_SLOTS 100

// The links every pooled record begins with.
struct track_node {
	struct list_head hash_link; // bucket chain in use, free list when free
	struct list_head age_link;  // age list in use; self in a never-used slot
	u32 expires;                // jiffies at which the record is stale; 0 when free
};

struct track_pool {
	struct list_head buckets[TRACK_BUCKETS];
	struct list_head age_list;  // in use, least recently refreshed first
	struct list_head free_list; // free records, through hash_link
};

// How one table's sweep treats its records.
struct track_sweep_rule {
	u32 *deadline;     // the table's next-sweep tick count
	u32 timeout;       // deadline after a sweep that emptied the age list
	int keep_offset;   // offset of a u8 in the record: non-zero survives; -1 none
};

// A pointer into the table as seen from a node (for the walkers).
#define track_entry(ptr, type) container_of(ptr, type, node)

void track_pool_init(struct track_pool *pool);
// Appends a never-used record at the tail of the free list.
void track_pool_add_slot(struct track_pool *pool, struct track_node *n);

// Runs the expiry sweep if the rule's deadline has passed.
void track_pool_sweep(struct track_pool *pool, const struct track_sweep_rule *rule);
// When no record is free, moves the least recently refreshed one to the
// free list and returns it (before it is reused); otherwise NULL.
struct track_node *track_pool_evict(struct track_pool *pool);
// Takes the first free record into bucket `b` (at its head) and at the tail
// of the age list; NULL when the table owns no record at all.
struct track_node *track_pool_take(struct track_pool *pool, u32 b);
// Bucket chain -> head of the free list, age link unlinked and poisoned.
void track_pool_release(struct track_pool *pool, struct track_node *n);
// Age link to the tail of the age list, expires = now + timeout.
void track_pool_refresh(struct track_pool *pool, struct track_node *n, u32 timeout);

// Clears the name field and copies at most size - 1 bytes of a
// NUL-terminated name into it; the last byte stays 0.
static inline void track_copy_name(char *dst, const char *src, size_t size)
{
	size_t i;

	for (i = 0; i < size; i++)
		dst[i] = 0;
	for (i = 0; i + 1 < size && src[i]; i++)
		dst[i] = src[i];
}

static inline int track_pool_full(const struct track_pool *pool)
{
	return list_empty(&pool->free_list);
}

static inline int track_expired(const struct track_node *n)
{
	return (s32)(n->expires - jiffies) < 0;
}
