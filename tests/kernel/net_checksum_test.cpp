// Checksums against published values and an independent RFC 1071 sum.
#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "net/checksum.h"
#include "sim/packet.h"

// Designated initializers leave the other fields at their defaults.
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"

namespace {

// The checksum as it sits in the packet: the 16-bit value's bytes.
std::vector<uint8_t> wire(__sum16 c)
{
	uint8_t b[2];
	memcpy(b, &c, 2);
	return {b[0], b[1]};
}

TEST(Checksum, PublishedValues)
{
	// RFC 1071, section 3: the words 0001 f203 f4f5 f6f7 sum to ddf2.
	const uint8_t rfc[] = {0x00, 0x01, 0xf2, 0x03, 0xf4, 0xf5, 0xf6, 0xf7};
	EXPECT_EQ((std::vector<uint8_t>{0x22, 0x0d}), wire(csum_fold(csum_partial(rfc, 8, 0))));

	// An IPv4 header whose checksum b861 is the textbook example.
	uint8_t iph[20] = {0x45, 0x00, 0x00, 0x73, 0x00, 0x00, 0x40, 0x00, 0x40, 0x11,
			   0x00, 0x00, 0xc0, 0xa8, 0x00, 0x01, 0xc0, 0xa8, 0x00, 0xc7};
	EXPECT_EQ((std::vector<uint8_t>{0xb8, 0x61}), wire(ip_fast_csum(iph, 5)));
	iph[10] = 0xb8;
	iph[11] = 0x61;
	EXPECT_EQ(0, ip_fast_csum(iph, 5));

	// The router's partial sums are little-endian 32-bit word sums.
	const uint8_t w[8] = {0x01, 0x02, 0x03, 0x04, 0xff, 0xff, 0xff, 0xff};
	EXPECT_EQ(0x04030201u, (u32)csum_partial(w, 8, 0)); // + ffffffff with end-around carry
	EXPECT_EQ(0x00000302u, (u32)csum_partial(w + 1, 2, 0));
	EXPECT_EQ(0x04030202u, (u32)csum_partial(w, 4, 1));
}

TEST(Checksum, FoldedSumsMatchAnIndependentSum)
{
	std::mt19937 rng(7);
	for (int round = 0; round < 2000; round++) {
		size_t len = rng() % 200;
		std::vector<uint8_t> b(len);
		for (auto &x : b)
			x = (uint8_t)rng();
		uint16_t ref = sim::fold_complement(sim::sum16(b.data(), len));
		__sum16 got = csum_fold(csum_partial(b.data(), (int)len, 0));
		ASSERT_EQ((std::vector<uint8_t>{(uint8_t)(ref >> 8), (uint8_t)ref}), wire(got)) << len;
		// Split sums joined with csum_block_add give the same result.
		size_t cut = len ? rng() % len : 0;
		__wsum a = csum_partial(b.data(), (int)cut, 0);
		__wsum c = csum_partial(b.data() + cut, (int)(len - cut), 0);
		ASSERT_EQ(got, csum_fold(csum_block_add(a, c, (int)cut))) << len << "/" << cut;
	}
}

TEST(Checksum, PseudoHeadersVerifyBuiltSegments)
{
	using namespace sim;
	Ip4 ip{ .src = ip4("192.168.1.10"), .dst = ip4("93.184.216.34") };
	Bytes p = ip4_tcp(ip, Tcp{ .options = {2, 4, 5, 0xb4}, .payload = Bytes(333, 'x') });
	unsigned short seglen = (unsigned short)(p.size() - 20);
	EXPECT_EQ(0, csum_tcpudp_magic(ip.src, ip.dst, seglen, 6, csum_partial(&p[20], seglen, 0)));
	p[40] ^= 0x10;
	EXPECT_NE(0, csum_tcpudp_magic(ip.src, ip.dst, seglen, 6, csum_partial(&p[20], seglen, 0)));

	Ip6 ip6h{ .src = sim::ip6("2001:db8::1"), .dst = sim::ip6("2606:2800:220:1::1") };
	Bytes q = ip6_udp(ip6h, Udp{ .payload = Bytes(45, 'q') });
	struct in6_addr s6, d6;
	memcpy(&s6, ip6h.src.data(), 16);
	memcpy(&d6, ip6h.dst.data(), 16);
	u32 ulen = (u32)(q.size() - 40);
	EXPECT_EQ(0, csum_ipv6_magic(&s6, &d6, ulen, 17, csum_partial(&q[40], (int)ulen, 0)));
	// Computing into a zeroed field reproduces the builder's value.
	uint8_t saved[2] = {q[46], q[47]};
	q[46] = q[47] = 0;
	__sum16 c = csum_ipv6_magic(&s6, &d6, ulen, 17, csum_partial(&q[40], (int)ulen, 0));
	EXPECT_EQ((std::vector<uint8_t>{saved[0], saved[1]}), wire(c));
}

} // namespace
