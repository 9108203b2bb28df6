#pragma once
// Internet checksums with the router's results: partial sums are 32-bit
// one's-complement sums of the bytes read as little-endian 32-bit words.
#include "linux/in6.h"
#include "linux/types.h"

// 32-bit partial sum of len bytes at buff, added to sum.
__wsum csum_partial(const void *buff, int len, __wsum sum);

// Folds a 32-bit partial sum to 16 bits and complements it.
static inline __sum16 csum_fold(__wsum sum)
{
	u32 s = (u32)sum;

	s = (s & 0xffff) + (s >> 16);
	s = (s & 0xffff) + (s >> 16);
	return (__sum16)~s;
}

static inline __wsum csum_unfold(__sum16 n)
{
	return (__wsum)n;
}

static inline __wsum csum_add(__wsum csum, __wsum addend)
{
	u32 res = (u32)csum;

	res += (u32)addend;
	return (__wsum)(res + (res < (u32)addend));
}

static inline __wsum csum_sub(__wsum csum, __wsum addend)
{
	return csum_add(csum, ~addend);
}

// Adds a partial sum computed over bytes that start at an odd offset.
static inline __wsum csum_block_add(__wsum csum, __wsum csum2, int offset)
{
	u32 sum = (u32)csum2;

	if (offset & 1)
		sum = (sum >> 8) | (sum << 24);
	return csum_add(csum, (__wsum)sum);
}

// Header checksum of an IPv4 header of ihl 32-bit words.
__sum16 ip_fast_csum(const void *iph, unsigned int ihl);

// Adds the IPv4 pseudo-header (addresses in network order, len and proto
// in host order) to sum, unfolded.
__wsum csum_tcpudp_nofold(__be32 saddr, __be32 daddr, unsigned short len,
			  unsigned short proto, __wsum sum);

static inline __sum16 csum_tcpudp_magic(__be32 saddr, __be32 daddr, unsigned short len,
					unsigned short proto, __wsum sum)
{
	return csum_fold(csum_tcpudp_nofold(saddr, daddr, len, proto, sum));
}

// Adds the IPv6 pseudo-header to csum and folds.
__sum16 csum_ipv6_magic(const struct in6_addr *saddr, const struct in6_addr *daddr,
			u32 len, unsigned short proto, __wsum csum);

static inline __sum16 ip_compute_csum(const void *buff, int len)
{
	return csum_fold(csum_partial(buff, len, 0));
}
