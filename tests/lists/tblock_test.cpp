// The time-block list through its control file: the command language, the
// log it writes, and which entries stay allocated afterwards.
#include <random>

#include "list_fixture.h"
#include "linux/errno.h"
#include "linux/slab.h"
#include "linux/string.h"

namespace lists_test {
namespace {

TEST(MacText, ParsingAndValidation)
{
	struct { const char *text; const char *mac; int result; } cases[] = {
		{ "00:11:22:33:44:55", "00:11:22:33:44:55", 1 },
		{ "0:1:2:a:B:ff\n", "00:01:02:0a:0b:ff", 1 },   // anything may follow six numbers
		{ "0x00-0X11|22.33 44z55", "00:11:22:33:44:55", 1 }, // any separator, "0x" prefixes
		{ "00:11:22", "00:11:22:00:00:00", 0 },          // short: zero-padded
		{ "00:11:22:33:44:", "00:11:22:33:44:00", 1 }, // an empty sixth number counts
		{ "::::::", "00:00:00:00:00:00", 1 },            // empty numbers read as 0
		{ "123:4567:89abcdef", "23:67:ef:00:00:00", 0 }, // low 8 bits of each number
		{ "er 00:11:22:33:44:55", "0e:00:00:11:22:33", 1 },
		{ "", "00:00:00:00:00:00", 0 },
	};
	for (auto &c : cases) {
		u8 m[6];
		memset(m, 0x77, sizeof(m));
		EXPECT_EQ(c.result, ether_atoe(c.text, m)) << c.text;
		EXPECT_EQ(c.mac, mac_text(m)) << c.text;
	}

	// Locally administered is fine; group, broadcast and zero are refused.
	u8 m[6];
	EXPECT_EQ(0, get_hwaddr("00:11:22:33:44:55", m));
	EXPECT_EQ(0, get_hwaddr("02:00:00:00:00:00", m));
	for (const char *bad : { "01:00:5e:00:00:01", "ff:ff:ff:ff:ff:ff", "00:00:00:00:00:00", "zz", "", (const char *)NULL })
		EXPECT_EQ(-1, get_hwaddr(bad, m)) << (bad ? bad : "NULL");
}

TEST(MacText, HashMatchesTheShiftedXorForm)
{
	// h = m0<<10 ^ m1<<8 ^ m2<<6 ^ m3<<4 ^ m4<<2 ^ m5, folded by h ^ h>>8.
	std::mt19937 rng(12345);
	for (int n = 0; n < 20000; n++) {
		u8 m[6];
		for (auto &b : m)
			b = (u8)rng();
		u32 h = (u32)m[0] << 10 ^ (u32)m[1] << 8 ^ (u32)m[2] << 6 ^ (u32)m[3] << 4 ^ (u32)m[4] << 2 ^ m[5];
		ASSERT_EQ((h ^ h >> 8) & 63, mac_hash(m, 64)) << mac_text(m);
		ASSERT_EQ((h ^ h >> 8) & 255, mac_hash(m, 256)) << mac_text(m);
	}
	const u8 known[6] = { 0x00, 0x11, 0x22, 0x33, 0x44, 0x55 };
	EXPECT_EQ(0x2eu, mac_hash(known, 64)); // h = 0x1bf5, folded 0x1bee
	EXPECT_EQ(0xeeu, mac_hash(known, 256));
}

TEST_F(Lists, TblockAddTwiceDeleteAndTheKeptReference)
{
	EXPECT_EQ(22, tblock("add 00:11:22:33:44:55\n"));
	EXPECT_EQ(22, tblock("add 00:11:22:33:44:55\n"));
	EXPECT_EQ((Lines{ "<7>[tblk_proc_write]: tblock_string=add 00:11:22:33:44:55\n\n\n",
			  "<7>[tblk_proc_write]: add tblk entry...\n",
			  "<7>[tblk_insert]: Add: [00:11:22:33:44:55]\n",
			  "<7>[tblk_proc_write]: tblock_string=add 00:11:22:33:44:55\n\n\n",
			  "<7>[tblk_proc_write]: add tblk entry...\n",
			  "<7>[tblk_proc_write]: 129: alread exist [00:11:22:33:44:55]\n" }), take_log());
	auto list = tblk_entries();
	ASSERT_EQ(1u, list.size());
	tblk_entry *e = list[0];
	EXPECT_EQ(2, atomic_read(&e->refcnt)); // the list's and the duplicate check's
	EXPECT_EQ(1, entries_alive());

	EXPECT_EQ(21, tblock("del:00:11:22:33:44:55"));
	EXPECT_EQ((Lines{ "<7>[tblk_proc_write]: tblock_string=del:00:11:22:33:44:55\n\n",
			  "<7>[tblk_proc_write]: delete tblk entry...\n",
			  "<7>[tblk_delete_by_mac]: Delete: [00:11:22:33:44:55]\n" }), take_log());
	EXPECT_TRUE(tblk_entries().empty());
	// Unlinked, but the duplicate check's reference keeps it allocated.
	EXPECT_TRUE(kmodel_is_live(e));
	EXPECT_EQ(1, atomic_read(&e->refcnt));
	EXPECT_EQ(nullptr, e->next);
	EXPECT_EQ(nullptr, e->pprev);
	EXPECT_EQ(1, entries_alive());

	// An entry nobody looked up is freed by its deletion.
	EXPECT_EQ(22, tblock("add\t00:aa:bb:cc:dd:ee\n"));
	EXPECT_EQ(2, entries_alive());
	EXPECT_EQ(22, tblock("del 00:aa:bb:cc:dd:ee\n"));
	EXPECT_EQ(1, entries_alive());

	// Deleting an unlisted address logs only the keyword line.
	take_log();
	EXPECT_EQ(21, tblock("del 00:aa:bb:cc:dd:ee"));
	EXPECT_EQ((Lines{ "<7>[tblk_proc_write]: tblock_string=del 00:aa:bb:cc:dd:ee\n\n",
			  "<7>[tblk_proc_write]: delete tblk entry...\n" }), take_log());

	// Each list operation is its own section: look-up, then insertion.
	long sections = kmodel_bh_sections();
	EXPECT_EQ(21, tblock("add 00:aa:bb:cc:dd:ee"));
	EXPECT_EQ(sections + 2, kmodel_bh_sections());
	EXPECT_EQ(0, kmodel_bh_depth());
}

TEST_F(Lists, TblockKeywordsAndAddressForms)
{
	struct { const char *cmd; int result; const char *added; } cases[] = {
		{ "adder 00:11:22:33:44:55", 23, "0e:00:00:11:22:33" }, // prefix match, no separator
		{ "add 00:11:22", 12, "00:11:22:00:00:00" },
		{ "add: \t:0x02-0x11|2-3-4-5 trailing", 33, "02:11:02:03:04:05" },
		{ "add 01:00:5e:00:00:01", -EFAULT, nullptr },
		{ "add 00:00:00:00:00:00", -EFAULT, nullptr },
		{ "add", -EFAULT, nullptr },
		{ "add \n", -EFAULT, nullptr }, // "\n" reads as one zero number
		{ "del ff:ff:ff:ff:ff:ff", -EFAULT, nullptr },
		{ "ADD 00:11:22:33:44:55", 21, nullptr },
		{ "FLUSH", 5, nullptr },
		{ " add 00:11:22:33:44:55", 22, nullptr },
		{ "", 0, nullptr },
	};
	for (auto &c : cases) {
		SCOPED_TRACE(c.cmd);
		EXPECT_EQ(c.result, tblock(c.cmd));
		auto list = tblk_entries();
		ASSERT_EQ(c.added ? 1u : 0u, list.size());
		for (auto *e : list)
			EXPECT_EQ(c.added, mac_text(e->mac));
		tblk_flush();
	}
	// Refused addresses stop after the keyword line; unknown keywords log
	// nothing beyond the command itself.
	take_log();
	EXPECT_EQ(-EFAULT, tblock("add 01:00:5e:00:00:01"));
	EXPECT_EQ(3, tblock("xyz"));
	EXPECT_EQ((Lines{ "<7>[tblk_proc_write]: tblock_string=add 01:00:5e:00:00:01\n\n",
			  "<7>[tblk_proc_write]: add tblk entry...\n",
			  "<7>[tblk_proc_write]: tblock_string=xyz\n\n" }), take_log());
	EXPECT_EQ(0, entries_alive());
}

TEST_F(Lists, TblockFlushClearsEveryBucket)
{
	// 00:11:22:33:44:55 and 00:11:22:33:44:95 share bucket 0x2e; the other
	// two sit in buckets 0x00 and 0x3f. Chains are newest first.
	const char *macs[] = { "00:11:22:33:44:55", "00:00:00:00:00:40", "00:11:22:33:44:95", "00:00:00:00:00:3f" };
	for (const char *m : macs)
		ASSERT_EQ(21, tblock(std::string("add ") + m));
	EXPECT_EQ(0x2eu, mac_hash(tblk_entries()[1]->mac, 64));
	tblk_entry *held = tblk_get(mac("00:11:22:33:44:95").data());
	ASSERT_NE(nullptr, held);
	take_log();

	EXPECT_EQ(10, tblock("flushing\tx"));
	EXPECT_EQ((Lines{ "<7>[tblk_proc_write]: tblock_string=flushing\tx\n\n",
			  "<7>[tblk_proc_write]: flush all tblk entries...\n",
			  "<7>[tblk_flush]: Clear: [00:00:00:00:00:40]\n",
			  "<7>[tblk_flush]: Clear: [00:11:22:33:44:95]\n",
			  "<7>[tblk_flush]: Clear: [00:11:22:33:44:55]\n",
			  "<7>[tblk_flush]: Clear: [00:00:00:00:00:3f]\n" }), take_log());
	for (const char *m : macs)
		EXPECT_EQ(nullptr, tblk_get(mac(m).data())) << m;
	EXPECT_EQ(1, entries_alive()); // the one a caller still holds
	EXPECT_TRUE(kmodel_is_live(held));
	tblk_free(held); // a caller that did give its reference back
	EXPECT_EQ(0, entries_alive());
}

TEST_F(Lists, TblockDirectInterface)
{
	auto keep = mac("00:11:22:33:44:55");
	const u8 *m = keep.data();
	// The list itself takes duplicates; deletion by MAC removes them all.
	ASSERT_EQ(0, tblk_insert(m));
	ASSERT_EQ(0, tblk_insert(m));
	ASSERT_EQ(0, tblk_insert(mac("00:11:22:33:44:56").data()));
	EXPECT_EQ(3u, tblk_entries().size());
	take_log();
	tblk_delete_by_mac(m);
	EXPECT_EQ((Lines{ "<7>[tblk_delete_by_mac]: Delete: [00:11:22:33:44:55]\n",
			  "<7>[tblk_delete_by_mac]: Delete: [00:11:22:33:44:55]\n" }), take_log());
	EXPECT_EQ(1, entries_alive());

	tblk_delete(NULL);
	tblk_delete(tblk_entries()[0]);
	EXPECT_TRUE(tblk_entries().empty());
	EXPECT_EQ(0, entries_alive());
	EXPECT_TRUE(take_log().empty());

	// An insertion that cannot allocate adds and logs nothing; the write
	// still reports success.
	kmodel_fail_alloc_flags(GFP_ATOMIC);
	EXPECT_EQ(-ENOMEM, tblk_insert(m));
	EXPECT_EQ(21, tblock("add 00:11:22:33:44:55"));
	kmodel_fail_alloc_flags(0);
	EXPECT_EQ((Lines{ "<7>[tblk_proc_write]: tblock_string=add 00:11:22:33:44:55\n\n",
			  "<7>[tblk_proc_write]: add tblk entry...\n" }), take_log());
	EXPECT_TRUE(tblk_entries().empty());
	EXPECT_EQ(0, entries_alive());
}

TEST_F(Lists, TblockWriteBounds)
{
	std::string cmd = "add 00:11:22:33:44:55";
	std::string at_limit = cmd + std::string(299 - cmd.size(), ' ');
	EXPECT_EQ(299, tblock(at_limit));
	EXPECT_EQ(1u, tblk_entries().size());
	tblk_flush();
	take_log();

	EXPECT_EQ(-EFAULT, tblock(at_limit + " "));
	EXPECT_EQ(-EFAULT, kmodel_proc_write("tblock_proc", cmd.data(), cmd.size(), /*bad_address=*/true));
	EXPECT_TRUE(take_log().empty());
	EXPECT_TRUE(tblk_entries().empty());

	// Long numbers and no terminator in the user's bytes: parsing stays
	// inside the command buffer.
	EXPECT_EQ(299, tblock("add " + std::string(295, 'e')));
	EXPECT_EQ("ee:00:00:00:00:00", mac_text(tblk_entries()[0]->mac));
	EXPECT_EQ(-EFAULT, tblock("del " + std::string(295, '0')));
	tblk_flush();
	take_log();

	// A NUL ends a command only where nothing but NULs follows it; text
	// behind a NUL would be silently cut off, so the write is refused.
	struct {
		std::string text;
		int result;
		size_t entries;
	} nuls[] = {
		{ std::string("add 00:11:22:33:44:55\0", 22), 22, 1 },
		{ std::string("add 00:11:22:33:44:55\0\0\0", 24), 24, 1 },
		{ std::string("add 00:11:22:33:44:55\0:66", 25), -EINVAL, 0 },
		{ std::string("flush\0add 00:11:22:33:44:55", 28), -EINVAL, 1 },
	};
	for (auto &c : nuls) {
		SCOPED_TRACE(c.result);
		if (c.entries == 1 && c.result < 0)
			tblock("add 00:11:22:33:44:55");
		take_log();
		EXPECT_EQ(c.result, tblock(c.text));
		EXPECT_EQ(c.entries, tblk_entries().size());
		EXPECT_EQ("<7>[tblk_proc_write]: tblock_string=" + std::string(c.text.c_str()) + "\n\n", take_log().at(0));
		tblk_flush();
	}
}

} // namespace
} // namespace lists_test
