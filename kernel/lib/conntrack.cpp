// Connection-tracking entries as plain data made by the host; the last
// reference going calls nf_conntrack_destroy, as in the kernel.
//
// The kernel's conntrack memory is type-stable: a destroyed entry goes
// back to its cache and is handed out again as a new entry, never to
// anything else. The filter relies on that: its records keep an entry
// without a reference, and a WHITE_PASS verdict that arrives after the
// connection ended writes `white_mark` into whatever entry the memory has
// become. The model keeps the same contract:
// - the last QUARANTINE_MAX destroyed entries stay allocated and poisoned,
//   all but `white_mark` (under AddressSanitizer any other access is
//   reported; without it the reference count is left at 1 so that a late
//   put reaches nf_conntrack_destroy again and is caught there, and
//   kmodel_ct_attach refuses them);
// - older ones are handed out again by kmodel_ct_new, zeroed as the
//   kernel's allocation does, so that a long run keeps its memory flat;
// - reset frees everything.
#include <deque>
#include <stdlib.h>
#include <string.h>
#include <unordered_set>
#include <vector>

#include "kmodel/net.h"
#include "kmodel/state.h"
#include "net/netfilter/nf_conntrack.h"

#if defined(__SANITIZE_ADDRESS__)
#define KMODEL_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define KMODEL_ASAN 1
#endif
#endif
#ifdef KMODEL_ASAN
#include <sanitizer/asan_interface.h>
#endif

#define POISON_FREE 0x6b

namespace {

const size_t QUARANTINE_MAX = 4096;

std::unordered_set<const nf_conn *> g_live;        // made, not yet destroyed
std::unordered_set<const nf_conn *> g_quarantined; // destroyed, not yet freed
std::deque<nf_conn *> g_quarantine;                // the same, oldest first
std::vector<nf_conn *> g_cache;                    // destroyed, to be handed out again
long g_destroyed;                                  // destroyed since reset

void poison(struct nf_conn *ct)
{
	memset((void *)ct, POISON_FREE, sizeof(*ct));
	atomic_set(&ct->ct_general.use, 1);
#ifdef KMODEL_ASAN
	ASAN_POISON_MEMORY_REGION(ct, sizeof(*ct));
	// The mark stays writable, as in the kernel's type-stable cache (the
	// shadow's 8-byte granules leave the bytes before it writable too).
	ASAN_UNPOISON_MEMORY_REGION(&ct->white_mark, sizeof(ct->white_mark));
#endif
}

void unpoison([[maybe_unused]] struct nf_conn *ct)
{
#ifdef KMODEL_ASAN
	ASAN_UNPOISON_MEMORY_REGION(ct, sizeof(*ct));
#endif
}

} // namespace

void nf_conntrack_destroy(struct nf_conntrack *nfct)
{
	struct nf_conn *ct = (struct nf_conn *)nfct;

	BUG_ON(g_quarantined.count(ct) != 0); // destroyed twice, or put after destroy
	BUG_ON(atomic_read(&nfct->use) != 0);
	BUG_ON(g_live.erase(ct) != 1);
	g_destroyed++;
	poison(ct);
	g_quarantined.insert(ct);
	g_quarantine.push_back(ct);
	if (g_quarantine.size() > QUARANTINE_MAX) {
		nf_conn *old = g_quarantine.front();
		g_quarantine.pop_front();
		g_quarantined.erase(old);
		g_cache.push_back(old);
	}
}

struct nf_conn *kmodel_ct_new(void)
{
	struct nf_conn *ct;

	if (!g_cache.empty()) {
		ct = g_cache.back();
		g_cache.pop_back();
		unpoison(ct);
		memset((void *)ct, 0, sizeof(*ct));
	} else {
		ct = (struct nf_conn *)calloc(1, sizeof(*ct));
		BUG_ON(ct == NULL);
	}
	atomic_set(&ct->ct_general.use, 1);
	g_live.insert(ct);
	return ct;
}

void kmodel_ct_attach(struct sk_buff *skb, struct nf_conn *ct, int ctinfo)
{
	BUG_ON(g_live.count(ct) == 0); // destroyed, or never made
	nf_conntrack_put(skb->nfct);
	nf_conntrack_get(&ct->ct_general);
	skb->nfct = &ct->ct_general;
	skb->nfctinfo = ctinfo;
}

void kmodel_ct_remove(struct nf_conn *ct)
{
	nf_conntrack_put(&ct->ct_general);
}

bool kmodel_ct_destroyed(const struct nf_conn *ct) { return g_quarantined.count(ct) != 0; }
long kmodel_ct_destroy_count(void) { return g_destroyed; }
long kmodel_ct_quarantined(void) { return (long)g_quarantine.size(); }
int kmodel_ct_refs(const struct nf_conn *ct) { return atomic_read(&ct->ct_general.use); }

void kmodel_conntrack_reset(void)
{
	for (const nf_conn *ct : g_live)
		free((void *)ct);
	for (nf_conn *ct : g_quarantine) {
		unpoison(ct);
		free(ct);
	}
	for (nf_conn *ct : g_cache) {
		unpoison(ct);
		free(ct);
	}
	g_live.clear();
	g_cache.clear();
	g_quarantined.clear();
	g_quarantine.clear();
	g_destroyed = 0;
}
