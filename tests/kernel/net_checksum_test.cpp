// Checksums against published values and an independent RFC 1071 sum. The
// pseudo-header sums are checked by every forged segment the forge and hook
// tests compare byte for byte with the packet builder's.
#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "net/checksum.h"
#include "sim/packet.h"

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
	EXPECT_EQ(0x04030201u, (u32)csum_partial(w, 4, 0xffffffff)); // the carry of adding the sum goes around
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

} // namespace
