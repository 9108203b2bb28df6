#pragma once
// Neighbour (ARP / neighbour discovery) caches.
#include "linux/atomic.h"
#include "linux/netdevice.h"
#include "linux/skbuff.h"
#include "linux/types.h"

#define NUD_INCOMPLETE 0x01
#define NUD_REACHABLE 0x02
#define NUD_STALE 0x04
#define NUD_DELAY 0x08
#define NUD_PROBE 0x10
#define NUD_FAILED 0x20
#define NUD_NOARP 0x40
#define NUD_PERMANENT 0x80
#define NUD_NONE 0x00

#define NUD_IN_TIMER (NUD_INCOMPLETE | NUD_REACHABLE | NUD_DELAY | NUD_PROBE)
#define NUD_VALID (NUD_PERMANENT | NUD_NOARP | NUD_REACHABLE | NUD_PROBE | NUD_STALE | NUD_DELAY)
#define NUD_CONNECTED (NUD_PERMANENT | NUD_NOARP | NUD_REACHABLE)

struct neigh_table;

// Packets waiting for the address to resolve.
struct sk_buff_head {
	struct sk_buff *next;
	struct sk_buff *prev;
	u32 qlen;
};

struct neighbour {
	struct neighbour *next;
	struct neigh_table *tbl;
	struct net_device *dev;
	unsigned long used;
	unsigned long confirmed;
	unsigned long updated;
	u8 flags;
	u8 nud_state;
	u8 type;
	u8 dead;
	atomic_t probes;
	unsigned char ha[MAX_ADDR_LEN];
	struct hh_cache *hh;
	atomic_t refcnt;
	int (*output)(struct sk_buff *skb);
	struct sk_buff_head arp_queue;
	u8 primary_key[16];
};

struct neigh_table {
	struct neigh_table *next;
	int family;
	int entry_size;
	int key_len;
	const char *id;
	struct neighbour *hash_buckets; // the model keeps one chain
	atomic_t entries;
};

// Returns the entry for pkey on dev with a reference taken, or NULL.
struct neighbour *neigh_lookup(struct neigh_table *tbl, const void *pkey, struct net_device *dev);
// Frees an entry whose last reference went.
void neigh_destroy(struct neighbour *neigh);

static inline void neigh_release(struct neighbour *neigh)
{
	if (atomic_dec_and_test(&neigh->refcnt))
		neigh_destroy(neigh);
}

static inline struct neighbour *neigh_clone(struct neighbour *neigh)
{
	if (neigh)
		atomic_inc(&neigh->refcnt);
	return neigh;
}

// Output through a neighbour: builds the link-layer header from the
// neighbour's address when it is valid, else queues the packet until it
// resolves. Consumes skb.
int neigh_resolve_output(struct sk_buff *skb);
