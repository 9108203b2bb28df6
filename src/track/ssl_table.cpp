// HTTPS flow tables: 100 (client, server) pairs per family. The buckets are
// plain sums, not hashes: symmetric for IPv4, destination-only for IPv6.
#include "track/ssl_table.h"

#include "linux/kernel.h"
#include "linux/slab.h"
#include "linux/string.h"

struct ssl_table_block *ssl_table;
struct ssl6_table_block *ssl6_table;
u32 ssl_next_sweep, ssl6_next_sweep;

static const struct track_sweep_rule ssl_sweep = {
	.deadline = &ssl_next_sweep,
	.timeout = SSL_TIMEOUT,
	.keep_offset = -1,
};

static const struct track_sweep_rule ssl6_sweep = {
	.deadline = &ssl6_next_sweep,
	.timeout = SSL_TIMEOUT,
	.keep_offset = -1,
};

static const u8 ssl6_any_client[16] = { 0 };

static u32 ssl_bucket(__be32 a, __be32 b)
{
	return (a + b) & TRACK_BUCKET_MASK;
}

// Word 3 of the server address, read natively.
static u32 ssl6_bucket(const u8 *server6)
{
	u32 w;

	memcpy(&w, server6 + 12, sizeof(w));
	return w & TRACK_BUCKET_MASK;
}

static int ssl_match(const struct ssl_tracking *rec, const struct iphdr *iph)
{
	return (rec->client == iph->saddr && rec->server == iph->daddr) ||
	       (rec->server == iph->saddr && rec->client == iph->daddr);
}

static int ssl6_client_is(const struct ssl6_tracking *rec, const struct in6_addr *a)
{
	return !memcmp(rec->client, ssl6_any_client, 16) || !memcmp(rec->client, a, 16);
}

static int ssl6_match(const struct ssl6_tracking *rec, const struct ipv6hdr *ip6h)
{
	return (ssl6_client_is(rec, &ip6h->saddr) && !memcmp(rec->server, &ip6h->daddr, 16)) ||
	       (ssl6_client_is(rec, &ip6h->daddr) && !memcmp(rec->server, &ip6h->saddr, 16));
}

static struct ssl_tracking *ssl_lookup(const struct iphdr *iph, int trusted_only)
{
	struct list_head *pos;

	list_for_each(pos, &ssl_table->pool.buckets[ssl_bucket(iph->saddr, iph->daddr)]) {
		struct ssl_tracking *rec = list_entry(pos, struct ssl_tracking, node.hash_link);

		if (trusted_only && !rec->trust)
			continue;
		if (ssl_match(rec, iph)) {
			atomic_inc(&rec->refcnt);
			return rec;
		}
	}
	return NULL;
}

static struct ssl6_tracking *ssl6_lookup(const struct ipv6hdr *ip6h, int trusted_only)
{
	struct list_head *pos;

	list_for_each(pos, &ssl6_table->pool.buckets[ssl6_bucket((const u8 *)&ip6h->daddr)]) {
		struct ssl6_tracking *rec = list_entry(pos, struct ssl6_tracking, node.hash_link);

		if (trusted_only && !rec->trust)
			continue;
		if (ssl6_match(rec, ip6h)) {
			atomic_inc(&rec->refcnt);
			return rec;
		}
	}
	return NULL;
}

struct ssl_tracking *ssl_find(const struct iphdr *iph)
{
	return ssl_lookup(iph, 0);
}

struct ssl_tracking *ssl_find_with_trust(const struct iphdr *iph)
{
	return ssl_lookup(iph, 1);
}

struct ssl6_tracking *ssl6_find(const struct ipv6hdr *ip6h)
{
	return ssl6_lookup(ip6h, 0);
}

struct ssl6_tracking *ssl6_find_with_trust(const struct ipv6hdr *ip6h)
{
	return ssl6_lookup(ip6h, 1);
}

int ssl_add(__be32 client, __be32 server, const char *host, int state)
{
	struct track_node *n;
	struct ssl_tracking *rec;

	track_pool_sweep(&ssl_table->pool, &ssl_sweep);
	track_pool_evict(&ssl_table->pool);
	n = track_pool_take(&ssl_table->pool, ssl_bucket(client, server));
	if (!n)
		return 0;
	rec = track_entry(n, struct ssl_tracking);
	n->expires = jiffies + SSL_TIMEOUT;
	rec->client = client;
	rec->server = server;
	memset(rec->spare, 0, sizeof(rec->spare));
	rec->trust = 0;
	track_copy_name(rec->host, host, sizeof(rec->host));
	rec->nfconn = NULL;
	atomic_set(&rec->refcnt, 1);
	rec->state = (u8)state;
	return 0;
}

int ssl6_add(const u8 *client6, const u8 *server6, const char *host, int state)
{
	struct track_node *n;
	struct ssl6_tracking *rec;

	track_pool_sweep(&ssl6_table->pool, &ssl6_sweep);
	track_pool_evict(&ssl6_table->pool);
	n = track_pool_take(&ssl6_table->pool, ssl6_bucket(server6));
	if (!n)
		return 0;
	rec = track_entry(n, struct ssl6_tracking);
	n->expires = jiffies + SSL_TIMEOUT;
	memcpy(rec->client, client6, 16);
	memcpy(rec->server, server6, 16);
	memset(rec->spare, 0, sizeof(rec->spare));
	rec->trust = 0;
	track_copy_name(rec->host, host, sizeof(rec->host));
	rec->nfconn = NULL;
	atomic_set(&rec->refcnt, 1);
	rec->state = (u8)state;
	return 0;
}

int ssl_update_timeout(struct ssl_tracking *rec)
{
	track_pool_refresh(&ssl_table->pool, &rec->node, SSL_TIMEOUT);
	return 0;
}

int ssl6_update_timeout(struct ssl6_tracking *rec)
{
	track_pool_refresh(&ssl6_table->pool, &rec->node, SSL_TIMEOUT);
	return 0;
}

int ssl_update_state(struct ssl_tracking *rec, int state)
{
	rec->state = (u8)state;
	return 0;
}

int ssl6_update_state(struct ssl6_tracking *rec, int state)
{
	rec->state = (u8)state;
	return 0;
}

int ssl_update_trust(struct ssl_tracking *rec, int trust)
{
	rec->trust = (u8)trust;
	return 0;
}

int ssl6_update_trust(struct ssl6_tracking *rec, int trust)
{
	rec->trust = (u8)trust;
	return 0;
}

int ssl_update_nfconn(struct ssl_tracking *rec, const struct sk_buff *skb)
{
	rec->nfconn = skb->nfct;
	return rec->nfconn ? 0 : -1;
}

int ssl6_update_nfconn(struct ssl6_tracking *rec, const struct sk_buff *skb)
{
	rec->nfconn = skb->nfct;
	return rec->nfconn ? 0 : -1;
}

int ssl_delete(struct ssl_tracking *rec)
{
	track_pool_release(&ssl_table->pool, &rec->node);
	rec->node.expires = 0;
	return 0;
}

int ssl6_delete(struct ssl6_tracking *rec)
{
	track_pool_release(&ssl6_table->pool, &rec->node);
	rec->node.expires = 0;
	return 0;
}

// The line carries the bucket number, not a record number.
int ssl_delete_all(int all)
{
	struct list_head *pos, *next;
	int i;

	for (i = 0; i < TRACK_BUCKETS; i++) {
		list_for_each_safe(pos, next, &ssl_table->pool.buckets[i]) {
			struct ssl_tracking *rec = list_entry(pos, struct ssl_tracking, node.hash_link);

			printk("<7>[%s]: clear ssl tracking[%d], host=%s\n", __func__, i, rec->host);
			if (all)
				ssl_delete(rec);
			else
				rec->trust = 0;
		}
	}
	return 0;
}

int ssl6_delete_all(int all)
{
	struct list_head *pos, *next;
	int i;

	for (i = 0; i < TRACK_BUCKETS; i++) {
		list_for_each_safe(pos, next, &ssl6_table->pool.buckets[i]) {
			struct ssl6_tracking *rec = list_entry(pos, struct ssl6_tracking, node.hash_link);

			printk("<7>[%s]: clear ssl tracking[%d], host=%s\n", __func__, i, rec->host);
			if (all)
				ssl6_delete(rec);
			else
				rec->trust = 0;
		}
	}
	return 0;
}

int ssl_init(void)
{
	int i;

	ssl_table = (struct ssl_table_block *)kzalloc(sizeof(*ssl_table), GFP_KERNEL);
	if (!ssl_table) {
		printk("<3>[%s]: init ssl moudle failed!\n", __func__);
		return -1;
	}
	track_pool_init(&ssl_table->pool);
	ssl_table->slots_ptr = ssl_table->slots;
	for (i = 0; i < TRACK_SLOTS; i++) {
		track_pool_add_slot(&ssl_table->pool, &ssl_table->slots[i].node);
		atomic_set(&ssl_table->slots[i].refcnt, 0);
	}
	ssl_next_sweep = jiffies + SSL_TIMEOUT;
	printk("<6>[%s]: init ssl module ..\n", __func__);
	return 0;
}

int ssl6_init(void)
{
	int i;

	ssl6_table = (struct ssl6_table_block *)kzalloc(sizeof(*ssl6_table), GFP_KERNEL);
	if (!ssl6_table) {
		printk("<3>[%s]: init ssl6 moudle failed!\n", __func__);
		return -1;
	}
	track_pool_init(&ssl6_table->pool);
	ssl6_table->slots_ptr = ssl6_table->slots;
	for (i = 0; i < TRACK_SLOTS; i++) {
		track_pool_add_slot(&ssl6_table->pool, &ssl6_table->slots[i].node);
		atomic_set(&ssl6_table->slots[i].refcnt, 0);
	}
	ssl6_next_sweep = jiffies + SSL_TIMEOUT;
	printk("<6>[%s]: init ssl module ..\n", __func__);
	return 0;
}

void ssl_fini(void)
{
	printk("<6>[%s]: exit ssl module ..\n", __func__);
	kfree(ssl_table);
	ssl_table = NULL;
}

void ssl6_fini(void)
{
	printk("<6>[%s]: exit ssl module ..\n", __func__);
	kfree(ssl6_table);
	ssl6_table = NULL;
}
