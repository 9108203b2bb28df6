// DNS name cache: 100 entries hashed on the name, one per query.
#include "track/dns_table.h"

#include "linux/kernel.h"
#include "linux/slab.h"
#include "linux/string.h"

struct dns_table_block *dns_table;
u32 check_period;

static const struct track_sweep_rule dns_sweep = {
	.deadline = &check_period,
	.timeout = DNS_TIMEOUT,
	.keep_offset = -1,
};

// ELF hash with each byte taken as signed: bytes 0x80-0xff subtract.
u32 dns_hash(const char *name, int len)
{
	u32 h = 0, g;
	int i;

	for (i = 0; i < len; i++) {
		h = (h << 4) + (u32)(s32)(s8)name[i];
		g = h & 0xF0000000u;
		if (g)
			h ^= g >> 24;
		h &= ~g;
	}
	return h & TRACK_BUCKET_MASK;
}

struct dns_entry *dns_find(const char *name)
{
	size_t len = strlen(name);
	struct list_head *pos;

	list_for_each(pos, &dns_table->pool.buckets[dns_hash(name, (int)len)]) {
		struct dns_entry *e = list_entry(pos, struct dns_entry, node.hash_link);

		if (memcmp(e->name, name, len) == 0) {
			atomic_inc(&e->refcnt);
			return e;
		}
	}
	return NULL;
}

int dns_add(const struct dns_info *info)
{
	u32 b = dns_hash(info->name, (int)strlen(info->name));
	struct track_node *n;
	struct dns_entry *e;

	track_pool_sweep(&dns_table->pool, &dns_sweep);
	if (track_pool_full(&dns_table->pool)) {
		printk("<7>[%s]: dns table is full, delete oldest dns entry\n", __func__);
		track_pool_evict(&dns_table->pool);
	}
	n = track_pool_take(&dns_table->pool, b);
	if (!n)
		return 0;
	e = track_entry(n, struct dns_entry);
	n->expires = jiffies + DNS_TIMEOUT;
	e->client = info->client;
	memset(e->addrs, 0, sizeof(e->addrs));
	memset(e->spare, 0, sizeof(e->spare));
	track_copy_name(e->name, info->name, sizeof(e->name));
	atomic_set(&e->refcnt, 1);
	e->state = 0;
	return 0;
}

int dns_update_timeout(struct dns_entry *e)
{
	track_pool_refresh(&dns_table->pool, &e->node, DNS_TIMEOUT);
	return 0;
}

int dns_update_state(struct dns_entry *e, int state)
{
	e->state = (u8)state;
	return 0;
}

int dns_delete(struct dns_entry *e)
{
	track_pool_release(&dns_table->pool, &e->node);
	e->node.expires = 0;
	return 0;
}

int dns_init(void)
{
	int i;

	dns_table = (struct dns_table_block *)kzalloc(sizeof(*dns_table), GFP_KERNEL);
	if (!dns_table) {
		printk("<3>[%s]: Init DNS module failed\n\n", __func__);
		return -1;
	}
	track_pool_init(&dns_table->pool);
	dns_table->slots_ptr = dns_table->slots;
	for (i = 0; i < TRACK_SLOTS; i++) {
		track_pool_add_slot(&dns_table->pool, &dns_table->slots[i].node);
		atomic_set(&dns_table->slots[i].refcnt, 0);
	}
	check_period = jiffies + DNS_TIMEOUT;
	printk("<6>[%s]: init dns module ..\n", __func__);
	return 0;
}

void dns_fini(void)
{
	printk("<6>[%s]: exit dns module ..\n", __func__);
	kfree(dns_table);
	// The pointer is left as it was: nothing reads it once the hooks are
	// gone, and the next load sets it again.
}
