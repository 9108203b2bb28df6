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

// Every linked time-block entry, bucket by bucket, checking the links.
inline std::vector<tblk_entry *> tblk_entries(void)
{
	std::vector<tblk_entry *> out;
	for (int i = 0; i < TBLK_HASH_SIZE; i++) {
		tblk_entry **link = &g_tblk_t[i];
		for (tblk_entry *e = *link; e; link = &e->next, e = e->next) {
			EXPECT_EQ(link, e->pprev);
			EXPECT_EQ((unsigned)i, mac_hash(e->mac, TBLK_HASH_SIZE));
			out.push_back(e);
		}
	}
	return out;
}

inline std::vector<ublk_entry *> ublk_entries(void)
{
	std::vector<ublk_entry *> out;
	for (int i = 0; i < UBLK_HASH_SIZE; i++) {
		ublk_entry **link = &g_ublk_t[i];
		for (ublk_entry *e = *link; e; link = &e->next, e = e->next) {
			EXPECT_EQ(link, e->pprev);
			EXPECT_EQ((unsigned)i, mac_hash(e->mac, UBLK_HASH_SIZE));
			out.push_back(e);
		}
	}
	return out;
}

inline std::vector<u8> mac(const char *text)
{
	std::vector<u8> m(6);
	unsigned v[6];
	EXPECT_EQ(6, sscanf(text, "%x:%x:%x:%x:%x:%x", &v[0], &v[1], &v[2], &v[3], &v[4], &v[5]));
	for (int i = 0; i < 6; i++)
		m[i] = (u8)v[i];
	return m;
}

class Lists : public ::testing::Test {
protected:
	void SetUp() override
	{
		kmodel_reset();
		ASSERT_EQ(0, tblock_init());
		ASSERT_EQ(0, unblock_init());
		base_blocks = kmodel_alloc_stats_get().live_blocks; // the two bucket arrays
		ASSERT_EQ(2, base_blocks);
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
	long entries_alive(void) { return kmodel_alloc_stats_get().live_blocks - base_blocks; }
	Lines take_log(void)
	{
		Lines l = kmodel_log();
		kmodel_log_clear();
		return l;
	}

	long base_blocks = 0;
};

} // namespace lists_test
