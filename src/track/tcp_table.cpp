// HTTP connection tables: 100 connections per family, bucketed by a
// symmetric sum so that both directions meet in one chain.
#include "track/tcp_table.h"

#include "linux/kernel.h"
#include "linux/slab.h"
#include "linux/string.h"

struct tcp_table_block *tcp_table;
struct tcp_table_block *tcp_table6;
u32 tcp_next_sweep;

static const struct track_sweep_rule tcp_sweep = {
	.deadline = &tcp_next_sweep,
	.timeout = TCP_TIMEOUT,
	.keep_offset = -1,
};

static u32 addr6_sum(const struct in6_addr *a)
{
	u32 w[4];

	memcpy(w, a, sizeof(w));
	return w[0] + w[1] + w[2] + w[3];
}

// Address words and ports as they lie in the packet, no byte swapping.
static u32 tcp_bucket(const struct iphdr *iph, const struct tcphdr *th)
{
	return (iph->saddr + iph->daddr + th->source + th->dest) & TRACK_BUCKET_MASK;
}

static u32 tcp_bucket6(const struct ipv6hdr *ip6h, const struct tcphdr *th)
{
	return (addr6_sum(&ip6h->saddr) + addr6_sum(&ip6h->daddr) + th->source + th->dest) &
	       TRACK_BUCKET_MASK;
}

static int tcp_match(const struct tcp_tracking *rec, const struct iphdr *iph, const struct tcphdr *th)
{
	if (rec->saddr == iph->saddr && rec->daddr == iph->daddr &&
	    rec->sport == th->source && rec->dport == th->dest)
		return 1;
	return rec->saddr == iph->daddr && rec->daddr == iph->saddr &&
	       rec->sport == th->dest && rec->dport == th->source;
}

static int tcp_match6(const struct tcp_tracking *rec, const struct ipv6hdr *ip6h, const struct tcphdr *th)
{
	if (!memcmp(&rec->saddr6, &ip6h->saddr, 16) && !memcmp(&rec->daddr6, &ip6h->daddr, 16) &&
	    rec->sport == th->source && rec->dport == th->dest)
		return 1;
	return !memcmp(&rec->saddr6, &ip6h->daddr, 16) && !memcmp(&rec->daddr6, &ip6h->saddr, 16) &&
	       rec->sport == th->dest && rec->dport == th->source;
}

// A record that leaves the table, or whose slot is taken again, frees the
// request copy it still holds. Kept, the copy would leak, and a verdict for
// the connection that next takes the slot would replay the old
// connection's request. The verdict dispatcher detaches a copy before it
// publishes the state that lets a packet delete the record, so the copy it
// sends or frees is never the one freed here.
static void tcp_drop_held(struct tcp_tracking *rec)
{
	if (rec->held_skb) {
		kfree_skb(rec->held_skb);
		rec->held_skb = NULL;
	}
}

// Sweep, evict if full, take a slot into bucket b: the record to fill.
static struct tcp_tracking *tcp_take(struct tcp_table_block *t, u32 b)
{
	struct track_node *n;
	struct tcp_tracking *rec;

	track_pool_sweep(&t->pool, &tcp_sweep);
	track_pool_evict(&t->pool);
	n = track_pool_take(&t->pool, b);
	if (!n)
		return NULL;
	rec = track_entry(n, struct tcp_tracking);
	tcp_drop_held(rec);
	n->expires = jiffies + TCP_TIMEOUT;
	rec->state = STATE_SYN_RCVD;
	return rec;
}

static void tcp_fill(struct tcp_tracking *rec, const struct tcphdr *th)
{
	rec->sport = th->source;
	rec->dport = th->dest;
	rec->nfconn = NULL;
	memset(rec->req_buf, 0, TCP_REQ_BUF_LEN);
	memset(rec->redirect_url, 0, sizeof(rec->redirect_url));
	atomic_set(&rec->refcnt, 1);
	rec->req_len = 0;
}

static int tcp_release(struct tcp_table_block *t, struct tcp_tracking *rec)
{
	track_pool_release(&t->pool, &rec->node);
	rec->node.expires = 0;
	tcp_drop_held(rec);
	return 0;
}

struct tcp_tracking *tcp_find(const struct iphdr *iph, const struct tcphdr *th)
{
	struct list_head *pos;

	list_for_each(pos, &tcp_table->pool.buckets[tcp_bucket(iph, th)]) {
		struct tcp_tracking *rec = list_entry(pos, struct tcp_tracking, node.hash_link);

		if (tcp_match(rec, iph, th)) {
			atomic_inc(&rec->refcnt);
			return rec;
		}
	}
	return NULL;
}

struct tcp_tracking *tcp_find6(const struct ipv6hdr *ip6h, const struct tcphdr *th)
{
	struct list_head *pos;

	list_for_each(pos, &tcp_table6->pool.buckets[tcp_bucket6(ip6h, th)]) {
		struct tcp_tracking *rec = list_entry(pos, struct tcp_tracking, node.hash_link);

		if (tcp_match6(rec, ip6h, th)) {
			atomic_inc(&rec->refcnt);
			return rec;
		}
	}
	return NULL;
}

int tcp_add(const struct iphdr *iph, const struct tcphdr *th)
{
	struct tcp_tracking *rec = tcp_take(tcp_table, tcp_bucket(iph, th));

	if (!rec)
		return 0;
	rec->saddr = iph->saddr;
	rec->daddr = iph->daddr;
	tcp_fill(rec, th);
	return 0;
}

int tcp_add6(const struct ipv6hdr *ip6h, const struct tcphdr *th)
{
	struct tcp_tracking *rec = tcp_take(tcp_table6, tcp_bucket6(ip6h, th));

	if (!rec)
		return 0;
	memcpy(&rec->saddr6, &ip6h->saddr, 16);
	memcpy(&rec->daddr6, &ip6h->daddr, 16);
	tcp_fill(rec, th);
	return 0;
}

// Neither delete asks which table the record came from: an IPv6 record
// given to tcp_delete joins the IPv4 free list for good.
int tcp_delete(struct tcp_tracking *rec)
{
	return tcp_release(tcp_table, rec);
}

int tcp_delete6(struct tcp_tracking *rec)
{
	return tcp_release(tcp_table6, rec);
}

int tcp_update_timeout(struct tcp_tracking *rec)
{
	track_pool_refresh(&tcp_table->pool, &rec->node, TCP_TIMEOUT);
	return 0;
}

int tcp_update_timeout6(struct tcp_tracking *rec)
{
	track_pool_refresh(&tcp_table6->pool, &rec->node, TCP_TIMEOUT);
	return 0;
}

int tcp_update_state(struct tcp_tracking *rec, u8 state)
{
	rec->state = state;
	return 0;
}

int tcp_update_state6(struct tcp_tracking *rec, u8 state)
{
	rec->state = state;
	return 0;
}

int tcp_update_nfconn(struct tcp_tracking *rec, const struct sk_buff *skb)
{
	rec->nfconn = skb->nfct;
	return rec->nfconn ? 0 : -1;
}

// Lists and slots of one table; a failed buffer leaves the slots before it.
static int tcp_table_fill(struct tcp_table_block *t, const char *fn)
{
	int i;

	t->slots_ptr = t->slots;
	track_pool_init(&t->pool);
	for (i = 0; i < TRACK_SLOTS; i++) {
		struct tcp_tracking *rec = &t->slots[i];

		track_pool_add_slot(&t->pool, &rec->node);
		rec->slot = (u8)i;
		atomic_set(&rec->refcnt, 0);
		rec->req_buf = (char *)kmalloc(TCP_REQ_BUF_LEN, GFP_KERNEL);
		if (!rec->req_buf) {
			printk("<3>[%s]: kmalloc failed!\n", fn);
			return -1;
		}
	}
	return 0;
}

static int table_init(void)
{
	return tcp_table_fill(tcp_table, "table_init");
}

int table6_init(void)
{
	return tcp_table_fill(tcp_table6, __func__);
}

int cbt_tcp_init(void)
{
	tcp_table = (struct tcp_table_block *)kzalloc(sizeof(*tcp_table), GFP_KERNEL);
	if (!tcp_table) {
		printk("<3>[%s]: init tcp module failed!\n", __func__);
		return -1;
	}
	if (table_init())
		return -1;
	tcp_table6 = (struct tcp_table_block *)kzalloc(sizeof(*tcp_table6), GFP_KERNEL);
	if (!tcp_table6) {
		printk("<3>[%s]: init TCP module failed!\n", __func__);
		return -1;
	}
	if (table6_init() == -1)
		return -1;
	tcp_next_sweep = jiffies + TCP_TIMEOUT;
	printk("<6>[%s]: init tcp module ..\n", __func__);
	return 0;
}

// Every slot lies on exactly one bucket chain or free list of the two
// tables, so each buffer is freed once.
static void tcp_free_buffers(struct list_head *head)
{
	struct list_head *pos;

	list_for_each(pos, head) {
		struct tcp_tracking *rec = list_entry(pos, struct tcp_tracking, node.hash_link);

		if (rec->req_buf)
			kfree(rec->req_buf);
	}
}

static void tcp_free_table_buffers(struct tcp_table_block *t)
{
	int i;

	if (!t)
		return;
	for (i = 0; i < TRACK_BUCKETS; i++)
		tcp_free_buffers(&t->pool.buckets[i]);
	tcp_free_buffers(&t->pool.free_list);
}

// The tcp_table6 block itself is never released, and held copies stay with
// their slots. The pointers are dropped so that an unload after a load that
// failed early cannot free anything twice.
void cbt_tcp_fini(void)
{
	tcp_free_table_buffers(tcp_table);
	tcp_free_table_buffers(tcp_table6);
	printk("<6>[%s]: exit tcp module ..\n", __func__);
	kfree(tcp_table);
	tcp_table = NULL;
	tcp_table6 = NULL;
}
