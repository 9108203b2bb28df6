// Non-HTTP flow tables: 100 server addresses per family, hashed with a
// seeded Jenkins hash; records marked keep outlive the expiry sweep.
#include "track/pct_table.h"

#include "linux/kernel.h"
#include "linux/random.h"
#include "linux/slab.h"
#include "linux/string.h"
#include "track/jhash.h"

struct pct_table_block *pct_table;
struct pct6_table_block *pct6_table;
u32 pct_hash_seed, pct6_hash_seed;
u32 pct_next_sweep, pct6_next_sweep;

static_assert(offsetof(struct pct_tracking, node) == 0, "records start with their links");
static_assert(offsetof(struct pct6_tracking, node) == 0, "records start with their links");

static const struct track_sweep_rule pct_sweep = {
	.deadline = &pct_next_sweep,
	.timeout = PCT_TIMEOUT,
	.keep_offset = offsetof(struct pct_tracking, keep),
};

static const struct track_sweep_rule pct6_sweep = {
	.deadline = &pct6_next_sweep,
	.timeout = PCT_TIMEOUT,
	.keep_offset = offsetof(struct pct6_tracking, keep),
};

u32 pct_hash(u32 addr)
{
	return jhash_1word(addr, pct_hash_seed) & TRACK_BUCKET_MASK;
}

u32 pct6_hash(u32 x)
{
	return jhash_1word(x, pct6_hash_seed) & TRACK_BUCKET_MASK;
}

struct pct_tracking *pct_find(__be32 addr)
{
	struct list_head *pos;

	list_for_each(pos, &pct_table->pool.buckets[pct_hash(addr)]) {
		struct pct_tracking *rec = list_entry(pos, struct pct_tracking, node.hash_link);

		if (rec->addr == addr) {
			atomic_inc(&rec->refcnt);
			return rec;
		}
	}
	return NULL;
}

// Only the fourth byte of the address chooses the bucket.
struct pct6_tracking *pct6_find(const u8 *addr6)
{
	struct list_head *pos;

	list_for_each(pos, &pct6_table->pool.buckets[pct6_hash(addr6[3])]) {
		struct pct6_tracking *rec = list_entry(pos, struct pct6_tracking, node.hash_link);

		if (memcmp(rec->addr6, addr6, 16) == 0) {
			atomic_inc(&rec->refcnt);
			return rec;
		}
	}
	return NULL;
}

int pct_add(const char *host, __be32 addr, int keep)
{
	u32 b = pct_hash(addr);
	struct track_node *n;
	struct pct_tracking *rec;

	track_pool_sweep(&pct_table->pool, &pct_sweep);
	track_pool_evict(&pct_table->pool);
	n = track_pool_take(&pct_table->pool, b);
	if (!n)
		return 0;
	rec = track_entry(n, struct pct_tracking);
	n->expires = jiffies + PCT_TIMEOUT;
	rec->addr = addr;
	rec->state = 0;
	track_copy_name(rec->host, host, sizeof(rec->host));
	atomic_set(&rec->refcnt, 1);
	rec->keep = (u8)keep;
	return 0;
}

int pct6_add(const char *host, const u8 *addr6, int keep)
{
	u32 b = pct6_hash(addr6[3]);
	struct track_node *n;
	struct pct6_tracking *rec;

	track_pool_sweep(&pct6_table->pool, &pct6_sweep);
	track_pool_evict(&pct6_table->pool);
	n = track_pool_take(&pct6_table->pool, b);
	if (!n)
		return 0;
	rec = track_entry(n, struct pct6_tracking);
	n->expires = jiffies + PCT_TIMEOUT;
	memcpy(rec->addr6, addr6, 16);
	rec->state = 0;
	track_copy_name(rec->host, host, sizeof(rec->host));
	atomic_set(&rec->refcnt, 1);
	rec->keep = (u8)keep;
	return 0;
}

int pct_update_timeout(struct pct_tracking *rec)
{
	track_pool_refresh(&pct_table->pool, &rec->node, PCT_TIMEOUT);
	return 0;
}

int pct6_update_timeout(struct pct6_tracking *rec)
{
	track_pool_refresh(&pct6_table->pool, &rec->node, PCT_TIMEOUT);
	return 0;
}

int pct_update_state(struct pct_tracking *rec, int state)
{
	rec->state = (u8)state;
	return 0;
}

int pct6_update_state(struct pct6_tracking *rec, int state)
{
	rec->state = (u8)state;
	return 0;
}

int pct_delete(struct pct_tracking *rec)
{
	track_pool_release(&pct_table->pool, &rec->node);
	rec->node.expires = 0;
	return 0;
}

int pct6_delete(struct pct6_tracking *rec)
{
	track_pool_release(&pct6_table->pool, &rec->node);
	rec->node.expires = 0;
	return 0;
}

int pct_init(void)
{
	int i;

	pct_table = (struct pct_table_block *)kzalloc(sizeof(*pct_table), GFP_KERNEL);
	if (!pct_table) {
		printk("<3>[%s]: init pct module failed\n", __func__);
		return -1;
	}
	track_pool_init(&pct_table->pool);
	pct_table->slots_ptr = pct_table->slots;
	for (i = 0; i < TRACK_SLOTS; i++) {
		track_pool_add_slot(&pct_table->pool, &pct_table->slots[i].node);
		pct_table->slots[i].slot = (u8)i;
		atomic_set(&pct_table->slots[i].refcnt, 0);
	}
	pct_next_sweep = jiffies + PCT_TIMEOUT;
	get_random_bytes(&pct_hash_seed, sizeof(pct_hash_seed));
	printk("<6>[%s]: init pct module ..\n", __func__);
	return 0;
}

int pct6_init(void)
{
	int i;

	pct6_table = (struct pct6_table_block *)kzalloc(sizeof(*pct6_table), GFP_KERNEL);
	if (!pct6_table) {
		printk("<3>[%s]: init pct module failed\n", __func__);
		return -1;
	}
	track_pool_init(&pct6_table->pool);
	pct6_table->slots_ptr = pct6_table->slots;
	for (i = 0; i < TRACK_SLOTS; i++) {
		track_pool_add_slot(&pct6_table->pool, &pct6_table->slots[i].node);
		pct6_table->slots[i].slot = (u8)i;
		atomic_set(&pct6_table->slots[i].refcnt, 0);
	}
	pct6_next_sweep = jiffies + PCT_TIMEOUT;
	get_random_bytes(&pct6_hash_seed, sizeof(pct6_hash_seed));
	printk("<6>[%s]: init pct module ..\n", __func__);
	return 0;
}

void pct_fini(void)
{
	printk("<6>[%s]: exit pct module ..\n", __func__);
	kfree(pct_table);
	pct_table = NULL;
}

void pct6_fini(void)
{
	printk("<6>[%s]: exit pct module ..\n", __func__);
	kfree(pct6_table);
	pct6_table = NULL;
}
