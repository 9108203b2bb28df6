// Socket buffers: allocation, accounting, geometry changes, copies and
// reads across the linear and fragment parts, as net/core/skbuff.c does.
#include <deque>
#include <stdlib.h>
#include <unordered_set>

#include "kmodel/net.h"
#include "kmodel/state.h"
#include "linux/errno.h"
#include "linux/skbuff.h"
#include "net/checksum.h"
#include "net/dst.h"

#define SMP_CACHE_BYTES 32
#define SKB_DATA_ALIGN(x) (((x) + (SMP_CACHE_BYTES - 1)) & ~(SMP_CACHE_BYTES - 1))
#define POISON_FREE 0x6b

namespace {

std::unordered_set<const sk_buff *> g_live;
// Freed buffers stay poisoned for a while so that a second free or a late
// use of a stale pointer meets the poison rather than a new buffer.
std::deque<sk_buff *> g_graveyard;
const size_t GRAVEYARD_MAX = 4096;
kmodel_skb_stats g_stats;
long g_fail_nth;

bool fail_injected(void)
{
	if (g_fail_nth > 0 && --g_fail_nth == 0) {
		g_stats.failed_allocs++;
		return true;
	}
	return false;
}

unsigned char *head_alloc(unsigned int size)
{
	// Room for the shared info behind end, as in the kernel.
	unsigned char *p = (unsigned char *)calloc(1, size + sizeof(struct skb_shared_info));
	BUG_ON(p == NULL);
	return p;
}

struct sk_buff *skb_struct_new(unsigned int size)
{
	struct sk_buff *skb = (struct sk_buff *)calloc(1, sizeof(*skb));
	BUG_ON(skb == NULL);
	size = SKB_DATA_ALIGN(size);
	skb->head = head_alloc(size);
	skb->data = skb->head;
	skb->tail = skb->head;
	skb->end = skb->tail + size;
	skb->truesize = size + sizeof(struct sk_buff);
	atomic_set(&skb->users, 1);
	atomic_set(&skb_shinfo(skb)->dataref, 1);
	g_live.insert(skb);
	g_stats.live++;
	g_stats.total_allocs++;
	return skb;
}

void frag_free(skb_frag_t *frag)
{
	free(frag->page);
	frag->page = NULL;
}

void skb_release_data(struct sk_buff *skb)
{
	struct skb_shared_info *sh = skb_shinfo(skb);

	for (int i = 0; i < sh->nr_frags; i++)
		frag_free(&sh->frags[i]);
	BUG_ON(sh->frag_list != NULL); // never built by the model
	size_t size = skb->end - skb->head + sizeof(struct skb_shared_info);
	memset(skb->head, POISON_FREE, size);
	free(skb->head);
}

void bury(struct sk_buff *skb)
{
	g_live.erase(skb);
	g_stats.live--;
	g_stats.frees++;
	memset((void *)skb, POISON_FREE, sizeof(*skb));
	g_graveyard.push_back(skb);
	if (g_graveyard.size() > GRAVEYARD_MAX) {
		free(g_graveyard.front());
		g_graveyard.pop_front();
	}
}

void __kfree_skb(struct sk_buff *skb)
{
	skb_dst_drop(skb);
	if (skb->destructor)
		skb->destructor(skb);
	nf_conntrack_put(skb->nfct);
	skb_release_data(skb);
	bury(skb);
}

void copy_skb_header(struct sk_buff *n, const struct sk_buff *old)
{
	long offset = n->data - old->data;

	n->dev = old->dev;
	n->transport_header = old->transport_header ? old->transport_header + offset : NULL;
	n->network_header = old->network_header ? old->network_header + offset : NULL;
	n->mac_header = old->mac_header ? old->mac_header + offset : NULL;
	n->_skb_refdst = old->_skb_refdst;
	if (!(n->_skb_refdst & SKB_DST_NOREF))
		dst_clone(skb_dst(n));
	memcpy(n->cb, old->cb, sizeof(old->cb));
	n->csum = old->csum;
	n->local_df = old->local_df;
	n->pkt_type = old->pkt_type;
	n->ip_summed = old->ip_summed;
	n->priority = old->priority;
	n->protocol = old->protocol;
	n->mark = old->mark;
	n->skb_iif = old->skb_iif;
	n->mac_len = old->mac_len;
	n->nfct = old->nfct;
	nf_conntrack_get(old->nfct);
	n->nfctinfo = old->nfctinfo;
}

// Gives the buffer a larger head with nhead more bytes in front and ntail
// more behind; every header mark moves with the data.
int pskb_expand_head(struct sk_buff *skb, int nhead, int ntail)
{
	BUG_ON(nhead < 0 || ntail < 0);
	if (fail_injected())
		return -ENOMEM;
	unsigned int size = SKB_DATA_ALIGN(skb->end - skb->head + nhead + ntail);
	unsigned char *data = head_alloc(size);
	memcpy(data + nhead, skb->head, skb->tail - skb->head);
	memcpy(data + size, skb_shinfo(skb), sizeof(struct skb_shared_info));

	long off = (data + nhead) - skb->head;
	size_t old_size = skb->end - skb->head + sizeof(struct skb_shared_info);
	memset(skb->head, POISON_FREE, old_size);
	free(skb->head);
	skb->head = data;
	skb->data += off;
	skb->end = data + size;
	skb->tail += off;
	if (skb->transport_header)
		skb->transport_header += off;
	if (skb->network_header)
		skb->network_header += off;
	if (skb->mac_header)
		skb->mac_header += off;
	skb->truesize += size - (unsigned int)(old_size - sizeof(struct skb_shared_info));
	return 0;
}

// Removes the first `eat` bytes of the fragment part.
void frags_eat(struct sk_buff *skb, int eat)
{
	struct skb_shared_info *sh = skb_shinfo(skb);
	int k = 0;

	for (int i = 0; i < sh->nr_frags; i++) {
		if ((int)sh->frags[i].size <= eat) {
			eat -= sh->frags[i].size;
			frag_free(&sh->frags[i]);
			continue;
		}
		sh->frags[k] = sh->frags[i];
		if (eat) {
			sh->frags[k].page_offset += eat;
			sh->frags[k].size -= eat;
			eat = 0;
		}
		k++;
	}
	for (int i = k; i < sh->nr_frags; i++)
		sh->frags[i].page = NULL;
	sh->nr_frags = k;
}

} // namespace

// ---- release ----

void skb_dst_drop(struct sk_buff *skb)
{
	if (skb->_skb_refdst) {
		if (!(skb->_skb_refdst & SKB_DST_NOREF))
			dst_release(skb_dst(skb));
		skb->_skb_refdst = 0;
	}
}

void kfree_skb(struct sk_buff *skb)
{
	if (unlikely(!skb))
		return;
	if (!g_live.count(skb))
		kmodel_bug(__FILE__, __LINE__, "kfree_skb of a buffer that is not live (double free?)");
	if (likely(atomic_read(&skb->users) == 1))
		;
	else if (likely(!atomic_dec_and_test(&skb->users)))
		return;
	__kfree_skb(skb);
}

void consume_skb(struct sk_buff *skb)
{
	kfree_skb(skb);
}

// ---- allocation ----

struct sk_buff *__alloc_skb(unsigned int size, gfp_t priority, int fclone, int node)
{
	(void)priority;
	(void)fclone;
	(void)node;
	if (fail_injected())
		return NULL;
	return skb_struct_new(size);
}

struct sk_buff *skb_copy(const struct sk_buff *skb, gfp_t priority)
{
	BUG_ON(!g_live.count(skb));
	int headerlen = skb->data - skb->head;
	struct sk_buff *n = alloc_skb(skb->end - skb->head + skb->data_len, priority);

	if (!n)
		return NULL;
	skb_reserve(n, headerlen);
	skb_put(n, skb->len);
	if (skb_copy_bits(skb, -headerlen, n->head, headerlen + skb->len))
		BUG();
	copy_skb_header(n, skb);
	return n;
}

// ---- geometry ----

unsigned char *skb_put(struct sk_buff *skb, unsigned int len)
{
	unsigned char *tmp = skb->tail;

	BUG_ON(skb_is_nonlinear(skb));
	BUG_ON(len > (unsigned int)(skb->end - skb->tail)); // skb_over_panic
	skb->tail += len;
	skb->len += len;
	return tmp;
}

unsigned char *skb_push(struct sk_buff *skb, unsigned int len)
{
	BUG_ON(len > (unsigned int)(skb->data - skb->head)); // skb_under_panic
	skb->data -= len;
	skb->len += len;
	return skb->data;
}

unsigned char *skb_pull(struct sk_buff *skb, unsigned int len)
{
	if (unlikely(len > skb->len))
		return NULL;
	skb->len -= len;
	BUG_ON(skb->len < skb->data_len);
	return skb->data += len;
}

void skb_trim(struct sk_buff *skb, unsigned int len)
{
	if (skb->len <= len)
		return;
	// The kernel refuses to trim a non-linear buffer this way.
	BUG_ON(skb_is_nonlinear(skb));
	skb->len = len;
	skb->tail = skb->data + len;
}

int pskb_trim(struct sk_buff *skb, unsigned int len)
{
	if (skb->len <= len)
		return 0;
	unsigned int headlen = skb_headlen(skb);
	struct skb_shared_info *sh = skb_shinfo(skb);

	if (len <= headlen) {
		for (int i = 0; i < sh->nr_frags; i++)
			frag_free(&sh->frags[i]);
		sh->nr_frags = 0;
		skb->data_len = 0;
		skb->len = len;
		skb->tail = skb->data + len;
		return 0;
	}
	unsigned int offset = headlen;
	int k = 0;
	for (int i = 0; i < sh->nr_frags; i++) {
		if (offset >= len) {
			frag_free(&sh->frags[i]);
			continue;
		}
		if (offset + sh->frags[i].size > len)
			sh->frags[i].size = len - offset;
		offset += sh->frags[i].size;
		sh->frags[k++] = sh->frags[i];
	}
	for (int i = k; i < sh->nr_frags; i++)
		sh->frags[i].page = NULL;
	sh->nr_frags = k;
	skb->data_len = len - headlen;
	skb->len = len;
	return 0;
}

unsigned char *__pskb_pull_tail(struct sk_buff *skb, int delta)
{
	// Not enough bytes behind the linear part: refuse, buffer unchanged.
	if (delta < 0 || (unsigned int)delta > skb->data_len)
		return NULL;
	long eat = (skb->tail + delta) - skb->end;
	if (eat > 0 && pskb_expand_head(skb, 0, eat + 128))
		return NULL;
	if (skb_copy_bits(skb, skb_headlen(skb), skb->tail, delta))
		BUG();
	frags_eat(skb, delta);
	skb->tail += delta;
	skb->data_len -= delta;
	return skb->tail;
}

// ---- reads ----

int skb_copy_bits(const struct sk_buff *skb, int offset, void *to, int len)
{
	int start = skb_headlen(skb);
	unsigned char *out = (unsigned char *)to;
	const struct skb_shared_info *sh = skb_shinfo(skb);

	if (len < 0 || offset > (int)skb->len - len || offset < -(int)(skb->data - skb->head))
		return -EFAULT;
	int copy = start - offset;
	if (copy > 0) {
		if (copy > len)
			copy = len;
		memcpy(out, skb->data + offset, copy);
		if ((len -= copy) == 0)
			return 0;
		offset += copy;
		out += copy;
	}
	for (int i = 0; i < sh->nr_frags; i++) {
		int end = start + sh->frags[i].size;

		if ((copy = end - offset) > 0) {
			if (copy > len)
				copy = len;
			memcpy(out, (unsigned char *)sh->frags[i].page + sh->frags[i].page_offset + offset - start,
			       copy);
			if ((len -= copy) == 0)
				return 0;
			offset += copy;
			out += copy;
		}
		start = end;
	}
	return len ? -EFAULT : 0;
}

__wsum skb_checksum(const struct sk_buff *skb, int offset, int len, __wsum csum)
{
	int start = skb_headlen(skb);
	int pos = 0;
	const struct skb_shared_info *sh = skb_shinfo(skb);

	// Reading outside the buffer is a caller's bug; refuse loudly.
	BUG_ON(offset < 0 || len < 0 || offset > (int)skb->len - len);
	int copy = start - offset;
	if (copy > 0) {
		if (copy > len)
			copy = len;
		csum = csum_partial(skb->data + offset, copy, csum);
		if ((len -= copy) == 0)
			return csum;
		offset += copy;
		pos = copy;
	}
	for (int i = 0; i < sh->nr_frags; i++) {
		int end = start + sh->frags[i].size;

		if ((copy = end - offset) > 0) {
			if (copy > len)
				copy = len;
			const unsigned char *vaddr = (unsigned char *)sh->frags[i].page + sh->frags[i].page_offset;
			__wsum csum2 = csum_partial(vaddr + offset - start, copy, 0);
			csum = csum_block_add(csum, csum2, pos);
			if (!(len -= copy))
				return csum;
			offset += copy;
			pos += copy;
		}
		start = end;
	}
	BUG_ON(len);
	return csum;
}

// ---- host interface ----

kmodel_skb_stats kmodel_skb_stats_get(void) { return g_stats; }
void kmodel_fail_skb_alloc_nth(long n) { g_fail_nth = n; }
bool kmodel_skb_is_live(const struct sk_buff *skb) { return g_live.count(skb) != 0; }

struct sk_buff *kmodel_skb_build(const void *bytes, size_t len, size_t linear, size_t headroom,
				 size_t frag_size, size_t tailroom)
{
	const unsigned char *in = (const unsigned char *)bytes;

	if (linear > len)
		linear = len;
	struct sk_buff *skb = skb_struct_new(headroom + linear + tailroom);
	skb_reserve(skb, headroom);
	memcpy(skb_put(skb, linear), in, linear);
	size_t rest = len - linear;
	size_t off = linear;
	struct skb_shared_info *sh = skb_shinfo(skb);
	if (frag_size == 0)
		frag_size = rest;
	while (rest) {
		BUG_ON(sh->nr_frags >= MAX_SKB_FRAGS);
		size_t n = rest < frag_size ? rest : frag_size;
		// Fragments start a few bytes into their page, as real ones may.
		unsigned char *page = (unsigned char *)malloc(n + 8);
		BUG_ON(page == NULL);
		memcpy(page + 8, in + off, n);
		sh->frags[sh->nr_frags].page = (struct page *)page;
		sh->frags[sh->nr_frags].page_offset = 8;
		sh->frags[sh->nr_frags].size = n;
		sh->nr_frags++;
		skb->len += n;
		skb->data_len += n;
		skb->truesize += n;
		off += n;
		rest -= n;
	}
	skb_reset_network_header(skb);
	skb_reset_transport_header(skb);
	return skb;
}

std::vector<uint8_t> kmodel_skb_bytes(const struct sk_buff *skb)
{
	std::vector<uint8_t> out(skb->len);
	if (skb->len && skb_copy_bits(skb, 0, out.data(), skb->len))
		BUG();
	return out;
}

void kmodel_skb_free_all(void)
{
	for (const sk_buff *skb : g_live) {
		struct sk_buff *s = const_cast<sk_buff *>(skb);
		struct skb_shared_info *sh = skb_shinfo(s);
		for (int i = 0; i < sh->nr_frags; i++)
			free(sh->frags[i].page);
		free(s->head);
		free(s);
	}
	g_stats.live = 0;
	g_live.clear();
}

void kmodel_skb_reset(void)
{
	// Buffers still live belong to the filter (or to a test): they are
	// counted and forgotten, so a leak checker judges them. Their route
	// and conntrack references go with the model's own state.
	kmodel_left_behind_add(0, 0, (long)g_live.size());
	g_live.clear();
	for (sk_buff *skb : g_graveyard)
		free(skb);
	g_graveyard.clear();
	g_stats = kmodel_skb_stats();
	g_fail_nth = 0;
}
