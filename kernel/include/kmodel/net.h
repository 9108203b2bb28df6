#pragma once
// The host's side of the network parts of the kernel model: socket buffer
// accounting, devices and what they transmit, routes, neighbour entries,
// connection-tracking entries, user-side netlink sockets and the log rate
// limiter. Only hosts include this.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "linux/in6.h"
#include "linux/types.h"

struct sk_buff;
struct net_device;
struct dst_entry;
struct neighbour;
struct neigh_table;
struct nf_conn;
struct sock;
struct flowi;

// ---- socket buffers ----
struct kmodel_skb_stats {
	long live;          // allocated and not yet freed
	long total_allocs;  // buffers allocated since reset (alloc_skb, skb_copy)
	long failed_allocs; // refused by injection
	long frees;
};
kmodel_skb_stats kmodel_skb_stats_get(void);
// The n-th allocation of socket-buffer memory from now fails (1 = the
// next one): alloc_skb, skb_copy and a head enlarged by a pull. 0 disarms.
void kmodel_fail_skb_alloc_nth(long n);
bool kmodel_skb_is_live(const struct sk_buff *skb);
// A buffer holding bytes[0..len): the first `linear` bytes in the head
// (behind `headroom` bytes of room), the rest in page fragments of at
// most frag_size bytes each (0: one fragment). Network and transport
// header marks are left at data. Not subject to injected failures.
// `tailroom` bytes stay free behind the linear part.
struct sk_buff *kmodel_skb_build(const void *bytes, size_t len, size_t linear,
				 size_t headroom = 64, size_t frag_size = 0, size_t tailroom = 0);
// The size of a network driver's receive buffer: frames arrive in buffers
// of this many bytes, so a received packet has the rest as tail room.
#define KMODEL_RX_BUFFER 1536
// All len bytes of a buffer, linear and fragment parts alike.
std::vector<uint8_t> kmodel_skb_bytes(const struct sk_buff *skb);

// ---- devices and transmission ----
// An Ethernet device; the model owns it until reset.
struct net_device *kmodel_dev_add(const char *name, const uint8_t mac[6]);
struct net_device *kmodel_dev_find(const char *name);

struct kmodel_tx {
	std::string dev;            // device name
	uint16_t protocol;          // skb->protocol, host order
	std::vector<uint8_t> frame; // from skb->data: link-layer header included
};
const std::vector<kmodel_tx> &kmodel_tx_log(void);
void kmodel_tx_clear(void);
// Result of dev_queue_xmit from now on (0 transmits). A non-zero result
// drops the packet without capturing it.
void kmodel_set_xmit_result(int rc);

// ---- routes ----
enum kmodel_route_out {
	KMODEL_OUT_HH,    // link-layer header cache (next-hop MAC given)
	KMODEL_OUT_NEIGH, // only a neighbour entry
	KMODEL_OUT_NONE,  // neither
};
// Longest prefix wins; the model owns the route. For KMODEL_OUT_HH `ha`
// is the next hop's MAC; for KMODEL_OUT_NEIGH `neigh` is used (the route
// takes a reference on it).
struct dst_entry *kmodel_route_add(__be32 daddr, int prefix_len, struct net_device *dev,
				   kmodel_route_out out, const uint8_t *ha = nullptr,
				   struct neighbour *neigh = nullptr);
struct dst_entry *kmodel_route6_add(const struct in6_addr *daddr, int prefix_len,
				    struct net_device *dev, kmodel_route_out out,
				    const uint8_t *ha = nullptr, struct neighbour *neigh = nullptr);
// The entry ip6_route_output returns when nothing matches (error set).
struct dst_entry *kmodel_route6_null_entry(void);
// ip6_route_output returns NULL instead of the null entry while set.
void kmodel_route6_return_null(bool on);
// The flow key of the last look-up of the family (AF_INET, AF_INET6).
const struct flowi &kmodel_route_last_flowi(int family);
// References held on a route (0 when nobody holds it).
int kmodel_dst_refs(const struct dst_entry *dst);

// ---- neighbours ----
// An entry in arp_tbl (key: 4-byte address) or nd_tbl (16-byte address).
// The table holds one reference.
struct neighbour *kmodel_neigh_add(struct neigh_table *tbl, const void *key,
				   struct net_device *dev, const uint8_t mac[6],
				   uint8_t nud_state, u32 used);
// New address and state; packets queued while unresolved are sent when
// the new state is valid.
void kmodel_neigh_update(struct neighbour *n, const uint8_t mac[6], uint8_t nud_state);
// Drops the table's reference (the entry goes when the last one does).
void kmodel_neigh_remove(struct neighbour *n);
int kmodel_neigh_refs(const struct neighbour *n);
bool kmodel_neigh_alive(const struct neighbour *n);
long kmodel_neigh_destroyed(void); // entries destroyed since reset
u32 kmodel_neigh_queued(const struct neighbour *n);

// ---- connection tracking ----
// A new entry, zeroed; the tracking table holds one reference. Its memory
// may be that of an entry destroyed long ago, as in the kernel's cache.
struct nf_conn *kmodel_ct_new(void);
// Attaches ct to skb->nfct with a reference of the buffer's own.
void kmodel_ct_attach(struct sk_buff *skb, struct nf_conn *ct, int ctinfo);
// Drops the table's reference (the entry times out).
void kmodel_ct_remove(struct nf_conn *ct);
// True for an entry destroyed recently: the last 4096 destroyed entries
// stay poisoned (all but white_mark), older ones are handed out again.
bool kmodel_ct_destroyed(const struct nf_conn *ct);
long kmodel_ct_destroy_count(void); // entries destroyed since reset
long kmodel_ct_quarantined(void);   // destroyed entries kept poisoned
int kmodel_ct_refs(const struct nf_conn *ct);

// ---- netlink ----
// The n-th netlink_kernel_create from now fails. 0 disarms.
void kmodel_fail_netlink_create_nth(long n);
bool kmodel_netlink_kernel_exists(int unit);
long kmodel_netlink_kernel_sockets(void); // created and not yet released

struct kmodel_nl_msg {
	std::vector<uint8_t> bytes; // the whole buffer, netlink header included
	u32 src_pid;                // NETLINK_CB pid of the sender
	u32 dst_group;              // group it was broadcast to
};
// A user-side socket of `unit` with port id pid, bound to a group mask
// (bit n-1 = group n). Returns a handle.
int kmodel_nl_open(int unit, u32 pid, u32 groups);
void kmodel_nl_close(int handle);
// Messages received and not yet read, oldest first; reading empties it.
std::vector<kmodel_nl_msg> kmodel_nl_read(int handle);
// At most this many unread messages per socket; more are lost and make
// netlink_broadcast report -ENOBUFS. Default 256.
void kmodel_nl_set_rcvbuf(int handle, size_t max_msgs);
// Sends len bytes to the unit's kernel socket: its input callback sees
// them as one buffer, freed afterwards. Returns len, -ECONNREFUSED
// without a kernel socket, -ENOBUFS when the buffer cannot be allocated.
int kmodel_nl_send(int handle, const void *buf, size_t len);

// ---- rate limiter ----
// net_ratelimit's window (jiffies, 0 = unlimited) and burst.
void kmodel_net_ratelimit_set(u32 interval, u32 burst);
