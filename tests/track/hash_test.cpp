// Bucket functions against values computed apart from the filter: the ELF
// hash values once with a separate script from the published algorithm,
// the one-word Jenkins hash against lookup2 as published.
#include <gtest/gtest.h>

#include "kmodel/host.h"
#include "reference.h"
#include "track/dns_table.h"
#include "track/pct_table.h"

using namespace track_test;

TEST(TableHash, DnsNameHashTakesBytesAsSigned)
{
	struct { const char *name; u32 bucket; } cases[] = {
		{ "", 0 }, { "a", 97 }, { "www.example.com", 125 }, { "www.example.co", 63 },
		{ "averyveryverylongname.example.org", 39 }, // past the 28-bit fold
		{ "caf\xe9.fr", 50 },
		{ "\xe9", 25 }, // -23: an unsigned byte would give 105
	};
	for (auto &c : cases)
		EXPECT_EQ(c.bucket, dns_hash(c.name, (int)strlen(c.name))) << c.name;
	// The length bounds the walk, not the terminator.
	EXPECT_EQ(0u, dns_hash("www.example.com", 0));
	EXPECT_EQ(63u, dns_hash("www.example.com", 14));
}

TEST(TableHash, FlowHashIsTheSeededLookup2Mix)
{
	// The seeded mix (placement of every key) is followed by the table model;
	// here the seed's other values, on a few addresses.
	for (u32 seed : { 0u, 0xfffffffcu, 0xdeadbeefu }) {
		pct_hash_seed = pct6_hash_seed = seed;
		for (uint8_t b : { 0, 7, 93, 255 }) {
			uint8_t bytes[4] = { 192, 168, b, uint8_t(b ^ 0x5a) }, fourth[4] = { b, 0, 0, 0 };
			u32 addr;
			memcpy(&addr, bytes, 4); // as it lies in the packet, no ntohl
			EXPECT_EQ(jhash_1word_ref(bytes, seed) & 127, pct_hash(addr)) << seed;
			EXPECT_EQ(jhash_1word_ref(fourth, seed) & 127, pct6_hash(b)) << seed;
		}
	}
	// The seed comes from get_random_bytes at init.
	auto seed_after_init = [](u32 random_seed) {
		kmodel_reset();
		kmodel_seed_random(random_seed);
		EXPECT_EQ(0, pct_init());
		u32 s = pct_hash_seed;
		pct_fini();
		return s;
	};
	EXPECT_EQ(seed_after_init(42), seed_after_init(42));
	EXPECT_NE(seed_after_init(42), seed_after_init(43));
}
