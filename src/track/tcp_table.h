#pragma once
// HTTP connection tables (IPv4 tcp_table, IPv6 tcp_table6): one record per
// port-80 connection, found from either direction.
//
// held_skb: the record owns the held copy; whoever sends or frees it sets the
// field to NULL, and tcp_delete, tcp_delete6 and an add that reuses the slot
// free a copy still held (the sweep and tcp_fini leave it to the slot).
#include "linux/atomic.h"
#include "linux/in6.h"
#include "linux/ip.h"
#include "linux/ipv6.h"
#include "linux/skbuff.h"
#include "linux/tcp.h"
#include "track/pool.h"

#define TCP_TIMEOUT 60000
#define TCP_REQ_BUF_LEN 2048
#define TCP_URL_LEN 512

enum tcp_track_state {
	STATE_SYN_RCVD = 1,
	STATE_ESTAB = 2,
	STATE_RATING = 3,
	STATE_PASS = 4,
	STATE_WHITE_PASS = 5,
	STATE_BLOCK = 6,
	STATE_REDIRECT = 7,
	STATE_FIN_WAIT1 = 8,
	STATE_FIN_WAIT2 = 9,
};

struct tcp_tracking {
	struct track_node node;
	u8 slot;
	u8 state;
	__be32 saddr;            // the client (IPv4 table)
	__be32 daddr;            // the server
	struct in6_addr saddr6;  // the client (IPv6 table)
	struct in6_addr daddr6;
	__be16 sport;            // client port; sport and dport form one word
	__be16 dport;
	atomic_t refcnt;         // counts finds; nothing reads it
	struct nf_conntrack *nfconn;  // no reference held
	char redirect_url[TCP_URL_LEN];
	char *req_buf;           // TCP_REQ_BUF_LEN bytes, the slot's for life
	u32 req_len;
	struct sk_buff *held_skb;
};

struct tcp_table_block {
	struct track_pool pool;
	struct tcp_tracking *slots_ptr;
	struct tcp_tracking slots[TRACK_SLOTS];
};

extern struct tcp_table_block *tcp_table;
extern struct tcp_table_block *tcp_table6;
// One deadline for both tables: a sweep of either sets it.
extern u32 tcp_next_sweep;

int cbt_tcp_init(void);
int table6_init(void);
void cbt_tcp_fini(void);

struct tcp_tracking *tcp_find(const struct iphdr *iph, const struct tcphdr *th);
int tcp_add(const struct iphdr *iph, const struct tcphdr *th);
int tcp_delete(struct tcp_tracking *rec);
int tcp_update_timeout(struct tcp_tracking *rec);
int tcp_update_state(struct tcp_tracking *rec, u8 state);
int tcp_update_nfconn(struct tcp_tracking *rec, const struct sk_buff *skb);

struct tcp_tracking *tcp_find6(const struct ipv6hdr *ip6h, const struct tcphdr *th);
int tcp_add6(const struct ipv6hdr *ip6h, const struct tcphdr *th);
int tcp_delete6(struct tcp_tracking *rec);
int tcp_update_timeout6(struct tcp_tracking *rec);
int tcp_update_state6(struct tcp_tracking *rec, u8 state);
