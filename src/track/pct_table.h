#pragma once
// Non-HTTP flow tables (pct_table, pct6_table): per server address, the
// DNS name it was resolved under and the rating state of traffic to it.
#include "linux/atomic.h"
#include "track/pool.h"

#define PCT_TIMEOUT 600000
#define PCT_HOST_LEN 256

struct pct_tracking {
	struct track_node node;
	u8 slot;
	u8 state;  // 0 new, then 3, 4 or 6 (the HTTP states' numbers)
	u8 keep;   // survives expiry sweeps (not eviction)
	__be32 addr;
	char host[PCT_HOST_LEN];
	atomic_t refcnt;  // counts finds; nothing reads it
};

struct pct6_tracking {
	struct track_node node;
	u8 slot;
	u8 state;
	u8 keep;
	u8 addr6[16];
	char host[PCT_HOST_LEN];
	atomic_t refcnt;
};

struct pct_table_block {
	struct track_pool pool;
	struct pct_tracking *slots_ptr;
	struct pct_tracking slots[TRACK_SLOTS];
};

struct pct6_table_block {
	struct track_pool pool;
	struct pct6_tracking *slots_ptr;
	struct pct6_tracking slots[TRACK_SLOTS];
};

extern struct pct_table_block *pct_table;
extern struct pct6_table_block *pct6_table;
extern u32 pct_hash_seed, pct6_hash_seed;
extern u32 pct_next_sweep, pct6_next_sweep;

// Bucket of an address word as it lies in the packet.
u32 pct_hash(u32 addr);
// Bucket of an IPv6 address: callers pass its fourth byte only.
u32 pct6_hash(u32 x);

struct pct_tracking *pct_find(__be32 addr);
int pct_add(const char *host, __be32 addr, int keep);
int pct_update_timeout(struct pct_tracking *rec);
int pct_update_state(struct pct_tracking *rec, int state);
int pct_delete(struct pct_tracking *rec);
int pct_init(void);
void pct_fini(void);

struct pct6_tracking *pct6_find(const u8 *addr6);
int pct6_add(const char *host, const u8 *addr6, int keep);
int pct6_update_timeout(struct pct6_tracking *rec);
int pct6_update_state(struct pct6_tracking *rec, int state);
int pct6_delete(struct pct6_tracking *rec);
int pct6_init(void);
void pct6_fini(void);
