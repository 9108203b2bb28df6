#pragma once
// Route cache entries (destination cache).
#include "linux/atomic.h"
#include "linux/netdevice.h"
#include "linux/skbuff.h"
#include "linux/types.h"

struct neighbour;

struct dst_entry {
	struct dst_entry *child;
	struct net_device *dev;
	short error;
	short obsolete;
	int flags;
	unsigned long expires;
	unsigned short header_len;
	unsigned short trailer_len;
	struct dst_entry *path;
	struct neighbour *neighbour;
	struct hh_cache *hh;
	int (*input)(struct sk_buff *skb);
	int (*output)(struct sk_buff *skb);
	atomic_t __refcnt;
	int __use;
	unsigned long lastuse;
};

static inline void dst_hold(struct dst_entry *dst)
{
	atomic_inc(&dst->__refcnt);
}

static inline struct dst_entry *dst_clone(struct dst_entry *dst)
{
	if (dst)
		atomic_inc(&dst->__refcnt);
	return dst;
}

// Drops one reference (NULL is allowed).
void dst_release(struct dst_entry *dst);

static inline int dst_output(struct sk_buff *skb)
{
	return skb_dst(skb)->output(skb);
}
