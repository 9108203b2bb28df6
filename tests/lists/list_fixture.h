#pragma once
// A kernel model holding just the two lists and their control files, plus
// readers that walk the hash chains the way an outside observer would.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "kmodel/host.h"
#include "lists/tblock.h"
#include "lists/unblock.h"

namespace lists_test {

using Lines = std::vector<std::string>;

inline std::string mac_text(const u8 *m)
{
	char s[18];
	snprintf(s, sizeof(s), "%02x:%02x:%02x:%02x:%02x:%02x", m[0], m[1], m[2], m[3], m[4], m[5]);
	return s;
}

// Every linked entry, bucket by bucket, checking the links and the bucket.
template <class E> std::vector<E *> entries(E **table, int size)
{
	std::vector<E *> out;
	for (int i = 0; i < size; i++)
		for (E **link = &table[i]; *link; link = &(*link)->next) {
			EXPECT_EQ(link, (*link)->pprev);
			EXPECT_EQ((unsigned)i, mac_hash((*link)->mac, size));
			out.push_back(*link);
		}
	return out;
}
inline std::vector<tblk_entry *> tblk_entries() { return entries(g_tblk_t, TBLK_HASH_SIZE); }
inline std::vector<ublk_entry *> ublk_entries() { return entries(g_ublk_t, UBLK_HASH_SIZE); }

inline std::vector<u8> mac(const char *text)
{
	unsigned v[6];
	EXPECT_EQ(6, sscanf(text, "%x:%x:%x:%x:%x:%x", &v[0], &v[1], &v[2], &v[3], &v[4], &v[5]));
	return std::vector<u8>(v, v + 6);
}

class Lists : public ::testing::Test {
protected:
	void SetUp() override
	{
		kmodel_reset();
		ASSERT_EQ(0, tblock_init());
		ASSERT_EQ(0, unblock_init());
		ASSERT_EQ(2, kmodel_alloc_stats_get().live_blocks); // the two bucket arrays
		kmodel_log_clear();
	}
	void TearDown() override
	{
		EXPECT_EQ(0, kmodel_bh_depth());
		unblock_fini();
		tblock_fini();
	}
	int tblock(const std::string &text) { return kmodel_proc_write_str("tblock_proc", text); }
	int unblock(const std::string &text) { return kmodel_proc_write_str("unblock_proc", text); }
	// Live allocations beyond the two bucket arrays.
	long entries_alive() { return kmodel_alloc_stats_get().live_blocks - 2; }
	Lines take_log()
	{
		Lines l = kmodel_log();
		kmodel_log_clear();
		return l;
	}
};

} // namespace lists_test
