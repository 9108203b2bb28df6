// jiffies, random bytes and bottom-half exclusion.
#include "kmodel/host.h"
#include "kmodel/state.h"
#include "linux/interrupt.h"
#include "linux/jiffies.h"
#include "linux/kernel.h"
#include "linux/random.h"

u32 jiffies = INITIAL_JIFFIES;

void kmodel_set_jiffies(u32 now) { jiffies = now; }
void kmodel_advance_jiffies(u32 ticks) { jiffies += ticks; }
void kmodel_time_reset(void) { jiffies = INITIAL_JIFFIES; }

namespace {
uint64_t g_rand_state = 0x9e3779b97f4a7c15ull;
int g_bh_depth;
long g_bh_sections;

uint64_t splitmix64(void)
{
	uint64_t z = (g_rand_state += 0x9e3779b97f4a7c15ull);
	z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ull;
	z = (z ^ (z >> 27)) * 0x94d049bb133111ebull;
	return z ^ (z >> 31);
}
}

void get_random_bytes(void *buf, int nbytes)
{
	u8 *p = static_cast<u8 *>(buf);
	while (nbytes > 0) {
		uint64_t r = splitmix64();
		for (int i = 0; i < 8 && nbytes > 0; i++, nbytes--)
			*p++ = (u8)(r >> (8 * i));
	}
}

void kmodel_seed_random(uint64_t seed) { g_rand_state = seed; }
void kmodel_random_reset(void) { g_rand_state = 0x9e3779b97f4a7c15ull; }

void local_bh_disable(void)
{
	g_bh_depth++;
	g_bh_sections++;
}

void local_bh_enable(void)
{
	BUG_ON(g_bh_depth <= 0);
	g_bh_depth--;
}

int kmodel_bh_depth(void) { return g_bh_depth; }
long kmodel_bh_sections(void) { return g_bh_sections; }
void kmodel_bh_reset(void)
{
	g_bh_depth = 0;
	g_bh_sections = 0;
}
