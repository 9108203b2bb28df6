// Internet checksum primitives with the router's (little-endian, 32-bit)
// partial sums: bytes are summed as little-endian 32-bit words with
// end-around carry; a tail shorter than a word counts as zero-padded.
#include "linux/string.h"
#include "net/checksum.h"

static inline u32 add32(u32 a, u32 b)
{
	a += b;
	return a + (a < b);
}

__wsum csum_partial(const void *buff, int len, __wsum sum)
{
	const unsigned char *p = (const unsigned char *)buff;
	u64 acc = 0;

	for (; len >= 4; len -= 4, p += 4)
		acc += (u32)p[0] | (u32)p[1] << 8 | (u32)p[2] << 16 | (u32)p[3] << 24;
	u32 tail = 0;
	for (int i = 0; i < len; i++)
		tail |= (u32)p[i] << (8 * i);
	acc += tail;
	while (acc >> 32)
		acc = (acc & 0xffffffffu) + (acc >> 32);
	return add32((u32)acc, sum);
}

__sum16 ip_fast_csum(const void *iph, unsigned int ihl)
{
	return csum_fold(csum_partial(iph, ihl * 4, 0));
}

__wsum csum_tcpudp_nofold(__be32 saddr, __be32 daddr, unsigned short len, unsigned short proto,
			  __wsum sum)
{
	u64 s = (u64)sum + saddr + daddr + ((u32)(len + proto) << 8);

	s = (s & 0xffffffffu) + (s >> 32);
	s = (s & 0xffffffffu) + (s >> 32);
	return (__wsum)s;
}

__sum16 csum_ipv6_magic(const struct in6_addr *saddr, const struct in6_addr *daddr, u32 len,
			unsigned short proto, __wsum csum)
{
	u64 s = csum;

	for (int i = 0; i < 4; i++)
		s += (u64)saddr->s6_addr32[i] + daddr->s6_addr32[i];
	s += htonl(len);
	s += htonl(proto);
	while (s >> 32)
		s = (s & 0xffffffffu) + (s >> 32);
	return csum_fold((__wsum)s);
}
