#pragma once
// HTTPS flow tables (ssl_table, ssl6_table): a client paired with a server
// address it resolved, and the name it resolved.
#include "linux/atomic.h"
#include "linux/ip.h"
#include "linux/ipv6.h"
#include "linux/skbuff.h"
#include "track/pool.h"

#define SSL_TIMEOUT 60000
#define SSL_HOST_LEN 256

struct ssl_tracking {
	struct track_node node;
	__be32 client;
	__be32 server;
	u8 spare[4];
	atomic_t refcnt;  // counts finds; nothing reads it
	u8 state;         // the HTTP states' numbers: 2, then 3, 4, 5 or 6
	u8 trust;         // a verdict arrived; only these are seen _with_trust
	struct nf_conntrack *nfconn;  // no reference held
	char host[SSL_HOST_LEN];
};

// client is all zero for "any client" (the snooping hook stores no other).
struct ssl6_tracking {
	struct track_node node;
	u8 client[16];
	u8 server[16];
	u8 spare[4];
	atomic_t refcnt;
	u8 state;
	u8 trust;
	struct nf_conntrack *nfconn;
	char host[SSL_HOST_LEN];
};

struct ssl_table_block {
	struct track_pool pool;
	struct ssl_tracking *slots_ptr;
	struct ssl_tracking slots[TRACK_SLOTS];
};

struct ssl6_table_block {
	struct track_pool pool;
	struct ssl6_tracking *slots_ptr;
	struct ssl6_tracking slots[TRACK_SLOTS];
};

extern struct ssl_table_block *ssl_table;
extern struct ssl6_table_block *ssl6_table;
extern u32 ssl_next_sweep, ssl6_next_sweep;

struct ssl_tracking *ssl_find(const struct iphdr *iph);
struct ssl_tracking *ssl_find_with_trust(const struct iphdr *iph);
int ssl_add(__be32 client, __be32 server, const char *host, int state);
int ssl_update_timeout(struct ssl_tracking *rec);
int ssl_update_state(struct ssl_tracking *rec, int state);
int ssl_update_trust(struct ssl_tracking *rec, int trust);
int ssl_update_nfconn(struct ssl_tracking *rec, const struct sk_buff *skb);
int ssl_delete(struct ssl_tracking *rec);
// all: delete every record; 0: withdraw every record's trust.
int ssl_delete_all(int all);
int ssl_init(void);
void ssl_fini(void);

// Looked up by the packet's destination only: server-to-client packets
// find a record only if the client's address falls in the same bucket.
struct ssl6_tracking *ssl6_find(const struct ipv6hdr *ip6h);
struct ssl6_tracking *ssl6_find_with_trust(const struct ipv6hdr *ip6h);
int ssl6_add(const u8 *client6, const u8 *server6, const char *host, int state);
int ssl6_update_timeout(struct ssl6_tracking *rec);
int ssl6_update_state(struct ssl6_tracking *rec, int state);
int ssl6_update_trust(struct ssl6_tracking *rec, int trust);
int ssl6_update_nfconn(struct ssl6_tracking *rec, const struct sk_buff *skb);
int ssl6_delete(struct ssl6_tracking *rec);
int ssl6_delete_all(int all);
int ssl6_init(void);
void ssl6_fini(void);
