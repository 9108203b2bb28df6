#pragma once
// Jenkins' one-word hash as the 2.6-series kernels define it: the lookup2
// mix over (word + golden ratio, golden ratio, seed). Later kernels switched
// to lookup3, which gives other values; the tables depend on these.
#include "linux/types.h"

#define JHASH_GOLDEN_RATIO 0x9e3779b9u

#define __jhash_mix(a, b, c) \
	do { \
		a -= b; a -= c; a ^= (c >> 13); \
		b -= c; b -= a; b ^= (a << 8); \
		c -= a; c -= b; c ^= (b >> 13); \
		a -= b; a -= c; a ^= (c >> 12); \
		b -= c; b -= a; b ^= (a << 16); \
		c -= a; c -= b; c ^= (b >> 5); \
		a -= b; a -= c; a ^= (c >> 3); \
		b -= c; b -= a; b ^= (a << 10); \
		c -= a; c -= b; c ^= (b >> 15); \
	} while (0)

static inline u32 jhash_1word(u32 word, u32 initval)
{
	u32 a = word + JHASH_GOLDEN_RATIO;
	u32 b = JHASH_GOLDEN_RATIO;
	u32 c = initval;

	__jhash_mix(a, b, c);
	return c;
}
