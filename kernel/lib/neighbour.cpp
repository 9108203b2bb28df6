// Neighbour caches (arp_tbl, nd_tbl): host-made entries, counted
// references, and output through a neighbour.
#include <stdlib.h>
#include <vector>

#include "kmodel/live.h"
#include "kmodel/net.h"
#include "kmodel/state.h"
#include "linux/errno.h"
#include <sys/socket.h> // AF_INET, AF_INET6
#include "net/arp.h"
#include "net/dst.h"
#include "net/ndisc.h"

struct neigh_table arp_tbl = {NULL, AF_INET, sizeof(struct neighbour), 4, "arp_cache", NULL, ATOMIC_INIT(0)};
struct neigh_table nd_tbl = {NULL, AF_INET6, sizeof(struct neighbour), 16, "ndisc_cache", NULL, ATOMIC_INIT(0)};

namespace {

// Destroyed entries stay readable (and recognisable) until reset.
std::vector<neighbour *> g_dead;
long g_destroyed;
const u32 ARP_QUEUE_LEN = 3;

void queue_tail(struct neighbour *n, struct sk_buff *skb)
{
	struct sk_buff_head *q = &n->arp_queue;

	if (q->qlen >= ARP_QUEUE_LEN) {
		struct sk_buff *old = q->next;
		q->next = old->next;
		if (!q->next)
			q->prev = NULL;
		q->qlen--;
		kfree_skb(old);
	}
	skb->next = NULL;
	if (q->prev)
		q->prev->next = skb;
	else
		q->next = skb;
	q->prev = skb;
	q->qlen++;
}

struct sk_buff *queue_head(struct neighbour *n)
{
	struct sk_buff_head *q = &n->arp_queue;
	struct sk_buff *skb = q->next;

	if (!skb)
		return NULL;
	q->next = skb->next;
	if (!q->next)
		q->prev = NULL;
	q->qlen--;
	skb->next = NULL;
	return skb;
}

int neigh_xmit(struct neighbour *n, struct sk_buff *skb)
{
	if (dev_hard_header(skb, n->dev, ntohs(skb->protocol), n->ha, NULL, skb->len) < 0) {
		kfree_skb(skb);
		return -EINVAL;
	}
	return dev_queue_xmit(skb);
}

void unlink_entry(struct neighbour *n)
{
	struct neighbour **pp = &n->tbl->hash_buckets;

	for (; *pp; pp = &(*pp)->next)
		if (*pp == n) {
			*pp = n->next;
			atomic_dec(&n->tbl->entries);
			return;
		}
}

} // namespace

struct neighbour *neigh_lookup(struct neigh_table *tbl, const void *pkey, struct net_device *dev)
{
	if (kmodel_neigh_fn host = kmodel_neigh_fn_get())
		host(tbl, pkey, dev);
	for (struct neighbour *n = tbl->hash_buckets; n; n = n->next)
		if (n->dev == dev && memcmp(n->primary_key, pkey, tbl->key_len) == 0) {
			atomic_inc(&n->refcnt);
			return n;
		}
	return NULL;
}

void neigh_destroy(struct neighbour *neigh)
{
	// Only a removed entry may lose its last reference; anything else
	// is a reference released twice.
	BUG_ON(!neigh->dead);
	BUG_ON(atomic_read(&neigh->refcnt) != 0);
	while (struct sk_buff *skb = queue_head(neigh))
		kfree_skb(skb);
	if (neigh->hh)
		free(neigh->hh);
	neigh->hh = NULL;
	g_destroyed++;
	g_dead.push_back(neigh);
}

int neigh_resolve_output(struct sk_buff *skb)
{
	struct dst_entry *dst = skb_dst(skb);
	struct neighbour *neigh;

	if (!dst || !(neigh = dst->neighbour)) {
		kfree_skb(skb);
		return -EINVAL;
	}
	if (skb_network_offset(skb) > 0)
		skb_pull(skb, skb_network_offset(skb));
	if (neigh->nud_state & (NUD_CONNECTED | NUD_DELAY | NUD_PROBE))
		return neigh_xmit(neigh, skb);
	if (neigh->nud_state & NUD_STALE) {
		neigh->nud_state = NUD_DELAY;
		return neigh_xmit(neigh, skb);
	}
	if (neigh->nud_state & NUD_FAILED) {
		kfree_skb(skb);
		return 0;
	}
	// Unresolved: wait for the answer (the host's kmodel_neigh_update).
	neigh->nud_state = NUD_INCOMPLETE;
	queue_tail(neigh, skb);
	return 0;
}

struct neighbour *kmodel_neigh_add(struct neigh_table *tbl, const void *key, struct net_device *dev,
				   const uint8_t mac[6], uint8_t nud_state, u32 used)
{
	struct neighbour *n = (struct neighbour *)calloc(1, sizeof(*n));

	BUG_ON(n == NULL);
	n->tbl = tbl;
	n->dev = dev;
	n->used = used;
	n->confirmed = used;
	n->updated = used;
	n->nud_state = nud_state;
	if (mac)
		memcpy(n->ha, mac, ETH_ALEN);
	atomic_set(&n->refcnt, 1);
	n->output = neigh_resolve_output;
	memcpy(n->primary_key, key, tbl->key_len);
	n->next = tbl->hash_buckets;
	tbl->hash_buckets = n;
	atomic_inc(&tbl->entries);
	return n;
}

void kmodel_neigh_update(struct neighbour *n, const uint8_t mac[6], uint8_t nud_state)
{
	if (mac)
		memcpy(n->ha, mac, ETH_ALEN);
	n->nud_state = nud_state;
	if (nud_state & NUD_VALID) {
		while (struct sk_buff *skb = queue_head(n))
			neigh_xmit(n, skb);
	} else if (nud_state & NUD_FAILED) {
		while (struct sk_buff *skb = queue_head(n))
			kfree_skb(skb);
	}
}

void kmodel_neigh_remove(struct neighbour *n)
{
	BUG_ON(n->dead);
	unlink_entry(n);
	n->dead = 1;
	neigh_release(n);
}

int kmodel_neigh_refs(const struct neighbour *n) { return atomic_read(&n->refcnt); }
bool kmodel_neigh_alive(const struct neighbour *n) { return !n->dead; }
long kmodel_neigh_destroyed(void) { return g_destroyed; }
u32 kmodel_neigh_queued(const struct neighbour *n) { return n->arp_queue.qlen; }

void kmodel_neigh_reset(void)
{
	struct neigh_table *tables[] = {&arp_tbl, &nd_tbl};

	for (struct neigh_table *tbl : tables) {
		while (struct neighbour *n = tbl->hash_buckets) {
			tbl->hash_buckets = n->next;
			free(n);
		}
		atomic_set(&tbl->entries, 0);
	}
	for (neighbour *n : g_dead)
		free(n);
	g_dead.clear();
	g_destroyed = 0;
}
