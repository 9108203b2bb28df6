// The accounting allocator behind kmalloc/kfree.
#include <cstdlib>
#include <cstring>
#include <unordered_map>

#include "kmodel/host.h"
#include "kmodel/state.h"
#include "linux/kernel.h"
#include "linux/slab.h"

namespace {
std::unordered_map<const void *, size_t> g_live;
kmodel_alloc_stats g_stats;
long g_fail_nth;
gfp_t g_fail_flags;
}

void *kmalloc(size_t size, gfp_t flags)
{
	bool fail = false;
	if (g_fail_nth > 0 && --g_fail_nth == 0)
		fail = true;
	if (g_fail_flags && flags == g_fail_flags)
		fail = true;
	if (fail) {
		g_stats.failed_allocs++;
		return NULL;
	}
	void *p = malloc(size ? size : 1);
	BUG_ON(!p);
	memset(p, 0xa5, size); // kmalloc memory is not zeroed
	g_live[p] = size;
	g_stats.live_blocks++;
	g_stats.total_allocs++;
	g_stats.live_bytes += size;
	return p;
}

void *kzalloc(size_t size, gfp_t flags)
{
	void *p = kmalloc(size, flags);
	if (p)
		memset(p, 0, size);
	return p;
}

void kfree(const void *p)
{
	if (!p)
		return;
	auto it = g_live.find(p);
	if (it == g_live.end())
		kmodel_bug(__FILE__, __LINE__, "kfree of a pointer that is not live (double free?)");
	memset(const_cast<void *>(p), 0x6b, it->second); // POISON_FREE
	g_stats.live_blocks--;
	g_stats.live_bytes -= it->second;
	g_live.erase(it);
	free(const_cast<void *>(p));
}

kmodel_alloc_stats kmodel_alloc_stats_get(void) { return g_stats; }
void kmodel_fail_alloc_nth(long n) { g_fail_nth = n; }
void kmodel_fail_alloc_flags(gfp_t flags) { g_fail_flags = flags; }
bool kmodel_is_live(const void *p) { return g_live.count(p) != 0; }

void kmodel_free_all(void)
{
	for (auto &[p, size] : g_live)
		free(const_cast<void *>(p));
	g_live.clear();
	g_stats.live_blocks = 0;
	g_stats.live_bytes = 0;
	kmodel_skb_free_all();
}

void kmodel_slab_reset(void)
{
	// Blocks still live are the filter's: counted and forgotten.
	kmodel_left_behind_add(g_stats.live_blocks, g_stats.live_bytes, 0);
	g_live.clear();
	g_stats = kmodel_alloc_stats{};
	g_fail_nth = 0;
	g_fail_flags = 0;
}
