// The lists inside the module: their files come and go with it, their
// set-up failures stop the load, and after unload exactly the entries that
// callers still hold remain allocated.
#include "list_fixture.h"

#include "linux/errno.h"
#include "lists/tblock_proc.h"
#include "lists/unblock_proc.h"
#include "sim/router.h"

namespace lists_test {
namespace {

TEST(ListWiring, FilesAndSetUpFailures)
{
	{
		sim::Router r;
		ASSERT_EQ(0, r.load());
		for (auto [name, write] : { std::pair{ "tblock_proc", &tblk_proc_write }, { "unblock_proc", &tm_proc_write } }) {
			const proc_dir_entry *e = kmodel_proc_entry(name);
			ASSERT_TRUE(e) << name;
			EXPECT_EQ(420u, e->mode); // 0644
			EXPECT_EQ(nullptr, e->read_proc);
			EXPECT_EQ(write, e->write_proc);
		}
		r.unload();
		EXPECT_FALSE(kmodel_proc_exists("tblock_proc") || kmodel_proc_exists("unblock_proc"));
	}
	// The lists' files are the first two the module makes.
	struct { long nth; Lines log; } files[] = {
		{ 1, { "<7>[tblk_create_proc_entry]: create tblock proc entry failed!\n\n", "<3>[init]: tblock_init fail\n" } },
		{ 2, { "<6>create unblock proc entry failed!\n", "<3>[init]: unblock_init fail\n" } },
	};
	for (auto &f : files) {
		sim::Router r;
		kmodel_fail_proc_create_nth(f.nth);
		EXPECT_EQ(-EFAULT, r.load());
		EXPECT_EQ(f.log, kmodel_log());
		EXPECT_EQ(f.nth, kmodel_alloc_stats_get().live_blocks); // the bucket arrays stay
	}
	for (long nth : { 1, 2 }) {
		kmodel_reset();
		kmodel_fail_alloc_nth(nth);
		EXPECT_EQ(-ENOMEM, nth == 1 ? tblock_init() : (tblock_init(), unblock_init()));
		EXPECT_EQ(nth == 2, kmodel_proc_exists("tblock_proc"));
		EXPECT_FALSE(kmodel_proc_exists("unblock_proc"));
		EXPECT_TRUE(kmodel_log().empty());
	}
}

TEST(ListWiring, UnloadKeepsOnlyHeldEntries)
{
	long others;
	{
		sim::Router r;
		ASSERT_EQ(0, r.load());
		r.unload();
		others = kmodel_alloc_stats_get().live_blocks; // whatever the rest keeps
	}
	sim::Router r;
	ASSERT_EQ(0, r.load());
	EXPECT_EQ(22, r.write_proc("tblock_proc", "add 00:11:22:33:44:55\n"));
	EXPECT_EQ(22, r.write_proc("tblock_proc", "add 00:11:22:33:44:55\n")); // held by the check
	EXPECT_EQ(22, r.write_proc("tblock_proc", "add 00:11:22:33:44:66\n"));
	EXPECT_EQ(-EFAULT, r.write_proc("unblock_proc", "+|00:11:22:33:44:55"));
	EXPECT_EQ(-EFAULT, r.write_proc("unblock_proc", "+|00:11:22:33:44:55")); // replaced, held
	EXPECT_EQ(-EFAULT, r.write_proc("unblock_proc", "+|00:11:22:33:44:55|u"));
	kmodel_log_clear();
	r.unload();
	EXPECT_EQ(others + 2, kmodel_alloc_stats_get().live_blocks);
	// The time-block list is flushed last of all, with its lines.
	Lines log = kmodel_log();
	ASSERT_GE(log.size(), 2u);
	EXPECT_EQ((Lines{ "<7>[tblk_flush]: Clear: [00:11:22:33:44:66]\n", "<7>[tblk_flush]: Clear: [00:11:22:33:44:55]\n" }),
		  Lines(log.end() - 2, log.end()));
	EXPECT_EQ(0, kmodel_bh_depth());
}

} // namespace
} // namespace lists_test
