#pragma once
// DNS name cache (dns_table): per client, the names it asked for and the
// addresses the answers gave.
#include "decode/dns.h"
#include "linux/atomic.h"
#include "track/pool.h"

#define DNS_TIMEOUT 60000

struct dns_entry {
	struct track_node node;
	__be32 client;
	struct dns_addr addrs[DNS_MAX_ADDRS];
	u8 spare[6];
	atomic_t refcnt;  // counts finds; nothing reads it
	u8 state;         // 0 query seen, 1 first response processed
	char name[DNS_NAME_LEN];
};

struct dns_table_block {
	struct track_pool pool;
	struct dns_entry *slots_ptr;
	struct dns_entry slots[TRACK_SLOTS];
};

extern struct dns_table_block *dns_table;
extern u32 check_period;

u32 dns_hash(const char *name, int len);
// Prefix match: the first entry of the key's bucket whose name begins
// with the key.
struct dns_entry *dns_find(const char *name);
int dns_add(const struct dns_info *info);
int dns_update_timeout(struct dns_entry *e);
int dns_update_state(struct dns_entry *e, int state);
int dns_delete(struct dns_entry *e);
int dns_init(void);
void dns_fini(void);
