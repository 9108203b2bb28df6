#pragma once
// Socket buffers, laid out as on the 32-bit router: the header marks and
// tail/end are pointers into the head. The linear area is head..end; the
// non-linear part (data_len bytes) lives in page fragments described by
// the shared info that sits at skb->end, as in the kernel.
#include "linux/atomic.h"
#include "linux/kernel.h"
#include "linux/slab.h"
#include "linux/string.h"
#include "linux/types.h"

struct net_device;
struct sock;
struct dst_entry;
struct page;

typedef unsigned char *sk_buff_data_t;

// Checksum state of a buffer (ip_summed).
#define CHECKSUM_NONE 0
#define CHECKSUM_UNNECESSARY 1
#define CHECKSUM_COMPLETE 2
#define CHECKSUM_PARTIAL 3

#define NET_IP_ALIGN 2
#define NET_SKB_PAD 32
#define MAX_SKB_FRAGS 18

// Packet types (pkt_type).
#define PACKET_HOST 0
#define PACKET_BROADCAST 1
#define PACKET_MULTICAST 2
#define PACKET_OTHERHOST 3
#define PACKET_OUTGOING 4

// The connection-tracking reference a buffer carries; the entry itself
// (struct nf_conn) starts with this.
struct nf_conntrack {
	atomic_t use;
};

// One page fragment of the non-linear part: size bytes at page + page_offset.
// In the model a "page" is simply a block of bytes owned by the buffer.
struct skb_frag_struct {
	struct page *page;
	u32 page_offset;
	u32 size;
};
typedef struct skb_frag_struct skb_frag_t;

struct skb_shared_info {
	unsigned short nr_frags;
	struct sk_buff *frag_list;
	atomic_t dataref;
	skb_frag_t frags[MAX_SKB_FRAGS];
};

struct sk_buff {
	struct sk_buff *next;
	struct sk_buff *prev;
	struct sock *sk;
	struct net_device *dev;
	// Control buffer, free for each layer (netlink keeps its parms here).
	char cb[48] __attribute__((aligned(8)));
	unsigned long _skb_refdst;
	unsigned int len;
	unsigned int data_len;
	u16 mac_len;
	u16 hdr_len;
	__wsum csum;
	u32 priority;
	u8 local_df:1,
	   cloned:1,
	   ip_summed:2,
	   nohdr:1,
	   nfctinfo:3;
	u8 pkt_type:3,
	   fclone:2,
	   ipvs_property:1,
	   peeked:1,
	   nf_trace:1;
	__be16 protocol;
	void (*destructor)(struct sk_buff *skb);
	struct nf_conntrack *nfct;
	int skb_iif;
	u32 mark;
	sk_buff_data_t transport_header;
	sk_buff_data_t network_header;
	sk_buff_data_t mac_header;
	sk_buff_data_t tail;
	sk_buff_data_t end;
	unsigned char *head;
	unsigned char *data;
	unsigned int truesize;
	atomic_t users;
};

// ---- connection-tracking reference ----
void nf_conntrack_destroy(struct nf_conntrack *nfct);

static inline void nf_conntrack_put(struct nf_conntrack *nfct)
{
	if (nfct && atomic_dec_and_test(&nfct->use))
		nf_conntrack_destroy(nfct);
}

static inline void nf_conntrack_get(struct nf_conntrack *nfct)
{
	if (nfct)
		atomic_inc(&nfct->use);
}

// ---- the route reference ----
// Low bit set: the buffer does not hold a counted reference on its route.
#define SKB_DST_NOREF 1UL
#define SKB_DST_PTRMASK ~(SKB_DST_NOREF)

static inline struct dst_entry *skb_dst(const struct sk_buff *skb)
{
	return (struct dst_entry *)(skb->_skb_refdst & SKB_DST_PTRMASK);
}

// The buffer takes over the caller's reference on dst.
static inline void skb_dst_set(struct sk_buff *skb, struct dst_entry *dst)
{
	skb->_skb_refdst = (unsigned long)dst;
}

static inline void skb_dst_set_noref(struct sk_buff *skb, struct dst_entry *dst)
{
	skb->_skb_refdst = (unsigned long)dst | SKB_DST_NOREF;
}

static inline bool skb_dst_is_noref(const struct sk_buff *skb)
{
	return (skb->_skb_refdst & SKB_DST_NOREF) && skb_dst(skb);
}

// Drops the buffer's route (and its reference, when counted).
void skb_dst_drop(struct sk_buff *skb);

// ---- allocation and release ----
struct sk_buff *__alloc_skb(unsigned int size, gfp_t priority, int fclone, int node);

static inline struct sk_buff *alloc_skb(unsigned int size, gfp_t priority)
{
	return __alloc_skb(size, priority, 0, -1);
}

// Drops one user; the last one frees the buffer with its fragments, its
// route reference and its connection-tracking reference.
void kfree_skb(struct sk_buff *skb);
void consume_skb(struct sk_buff *skb);

static inline struct sk_buff *skb_get(struct sk_buff *skb)
{
	atomic_inc(&skb->users);
	return skb;
}

// A private, linear copy of the whole buffer (headers, route, conntrack
// reference, device and marks copied); NULL when memory runs out.
struct sk_buff *skb_copy(const struct sk_buff *skb, gfp_t priority);

// ---- geometry ----
static inline struct skb_shared_info *skb_shinfo(const struct sk_buff *skb)
{
	return (struct skb_shared_info *)skb->end;
}

static inline bool skb_is_nonlinear(const struct sk_buff *skb)
{
	return skb->data_len != 0;
}

static inline unsigned int skb_headlen(const struct sk_buff *skb)
{
	return skb->len - skb->data_len;
}

static inline unsigned char *skb_tail_pointer(const struct sk_buff *skb)
{
	return skb->tail;
}

static inline unsigned char *skb_end_pointer(const struct sk_buff *skb)
{
	return skb->end;
}

static inline int skb_headroom(const struct sk_buff *skb)
{
	return skb->data - skb->head;
}

static inline int skb_tailroom(const struct sk_buff *skb)
{
	return skb_is_nonlinear(skb) ? 0 : skb->end - skb->tail;
}

static inline void skb_reserve(struct sk_buff *skb, int len)
{
	BUG_ON(skb->tail + len > skb->end || skb->data + len < skb->head);
	skb->data += len;
	skb->tail += len;
}

// Append len bytes at the tail of a linear buffer; returns their start.
unsigned char *skb_put(struct sk_buff *skb, unsigned int len);
// Prepend len bytes before data; returns the new data.
unsigned char *skb_push(struct sk_buff *skb, unsigned int len);
// Remove len bytes from the front of the linear data; NULL when too few.
unsigned char *skb_pull(struct sk_buff *skb, unsigned int len);
// Cut the buffer to len bytes (no-op when already shorter).
void skb_trim(struct sk_buff *skb, unsigned int len);
int pskb_trim(struct sk_buff *skb, unsigned int len);

// Make delta more bytes of the non-linear part linear; returns the new
// tail, or NULL (buffer unchanged) when there are not enough bytes or no
// memory for a larger head.
unsigned char *__pskb_pull_tail(struct sk_buff *skb, int delta);

static inline int pskb_may_pull(struct sk_buff *skb, unsigned int len)
{
	if (likely(len <= skb_headlen(skb)))
		return 1;
	if (unlikely(len > skb->len))
		return 0;
	return __pskb_pull_tail(skb, len - skb_headlen(skb)) != NULL;
}

// Copy len bytes from offset (linear or not) to `to`; 0 or -EFAULT.
int skb_copy_bits(const struct sk_buff *skb, int offset, void *to, int len);

// Partial checksum of len bytes at offset, linear and fragment parts alike.
__wsum skb_checksum(const struct sk_buff *skb, int offset, int len, __wsum csum);

static inline void *skb_header_pointer(const struct sk_buff *skb, int offset, int len, void *buffer)
{
	int hlen = skb_headlen(skb);

	if (offset >= 0 && len >= 0 && hlen - offset >= len)
		return skb->data + offset;
	if (skb_copy_bits(skb, offset, buffer, len) < 0)
		return NULL;
	return buffer;
}

// ---- header marks ----
static inline unsigned char *skb_transport_header(const struct sk_buff *skb)
{
	return skb->transport_header;
}

static inline void skb_reset_transport_header(struct sk_buff *skb)
{
	skb->transport_header = skb->data;
}

static inline void skb_set_transport_header(struct sk_buff *skb, const int offset)
{
	skb->transport_header = skb->data + offset;
}

static inline unsigned char *skb_network_header(const struct sk_buff *skb)
{
	return skb->network_header;
}

static inline void skb_reset_network_header(struct sk_buff *skb)
{
	skb->network_header = skb->data;
}

static inline void skb_set_network_header(struct sk_buff *skb, const int offset)
{
	skb->network_header = skb->data + offset;
}

static inline unsigned char *skb_mac_header(const struct sk_buff *skb)
{
	return skb->mac_header;
}

static inline int skb_mac_header_was_set(const struct sk_buff *skb)
{
	return skb->mac_header != NULL;
}

static inline void skb_reset_mac_header(struct sk_buff *skb)
{
	skb->mac_header = skb->data;
}

static inline void skb_set_mac_header(struct sk_buff *skb, const int offset)
{
	skb->mac_header = skb->data + offset;
}

static inline int skb_transport_offset(const struct sk_buff *skb)
{
	return skb_transport_header(skb) - skb->data;
}

static inline int skb_network_offset(const struct sk_buff *skb)
{
	return skb_network_header(skb) - skb->data;
}

static inline u32 skb_network_header_len(const struct sk_buff *skb)
{
	return skb->transport_header - skb->network_header;
}
