#pragma once
// Bucket functions written from their published descriptions, byte by byte,
// independently of the filter's code.
#include <cstdint>
#include <cstring>

namespace track_test {

// A 32-bit word as a little-endian processor loads it from these bytes.
inline uint32_t le32(const uint8_t *p)
{
	return (uint32_t)p[0] | (uint32_t)p[1] << 8 | (uint32_t)p[2] << 16 | (uint32_t)p[3] << 24;
}

inline uint32_t le16(const uint8_t *p) { return (uint32_t)p[0] | (uint32_t)p[1] << 8; }

// Bob Jenkins' lookup2 hash(k, length, initval) (1996), as published.
inline uint32_t lookup2(const uint8_t *k, uint32_t length, uint32_t initval)
{
	uint32_t a = 0x9e3779b9, b = 0x9e3779b9, c = initval, len = length;
	auto mix = [&]() {
		a -= b; a -= c; a ^= (c >> 13);
		b -= c; b -= a; b ^= (a << 8);
		c -= a; c -= b; c ^= (b >> 13);
		a -= b; a -= c; a ^= (c >> 12);
		b -= c; b -= a; b ^= (a << 16);
		c -= a; c -= b; c ^= (b >> 5);
		a -= b; a -= c; a ^= (c >> 3);
		b -= c; b -= a; b ^= (a << 10);
		c -= a; c -= b; c ^= (b >> 15);
	};
	while (len >= 12) {
		a += le32(k);
		b += le32(k + 4);
		c += le32(k + 8);
		mix();
		k += 12;
		len -= 12;
	}
	c += length;
	switch (len) {
	case 11: c += (uint32_t)k[10] << 24; [[fallthrough]];
	case 10: c += (uint32_t)k[9] << 16; [[fallthrough]];
	case 9: c += (uint32_t)k[8] << 8; [[fallthrough]];
	case 8: b += (uint32_t)k[7] << 24; [[fallthrough]];
	case 7: b += (uint32_t)k[6] << 16; [[fallthrough]];
	case 6: b += (uint32_t)k[5] << 8; [[fallthrough]];
	case 5: b += k[4]; [[fallthrough]];
	case 4: a += (uint32_t)k[3] << 24; [[fallthrough]];
	case 3: a += (uint32_t)k[2] << 16; [[fallthrough]];
	case 2: a += (uint32_t)k[1] << 8; [[fallthrough]];
	case 1: a += k[0];
	}
	mix();
	return c;
}

// The 2.6 kernels' one-word hash is lookup2 over the word's four bytes with
// the length's contribution to c taken back out of the seed.
inline uint32_t jhash_1word_ref(const uint8_t addr[4], uint32_t seed)
{
	return lookup2(addr, 4, seed - 4);
}

} // namespace track_test
