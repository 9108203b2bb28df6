// The unblock list through its control file: exemptions, their expiry and
// replacement, the flush commands and the pending-flush flag, and which
// entries stay allocated afterwards.
#include "list_fixture.h"

#include <cstdint>

#include "linux/errno.h"
#include "linux/jiffies.h"
#include "linux/slab.h"

namespace lists_test {
namespace {

const char kMac[] = "00:11:22:33:44:55";

// The two lines every accepted write to the unblock file begins with.
Lines write_echo(const std::string &text)
{
	return { "<7>[tm_proc_write]: buff=" + text + ", len=" + std::to_string(text.size()) + "\n\n",
		 "<7>[tm_proc_write]: unblock_string=" + text + "\n\n" };
}

TEST_F(Lists, UnblockGrantExpireAndHookDelete)
{
	const u32 t0 = 0xffffffffu - 1000; // the exemption runs across the wrap
	kmodel_set_jiffies(t0);
	EXPECT_EQ(-EFAULT, unblock("+|00:11:22:33:44:55")); // success reads as a failed write
	Lines want = write_echo("+|00:11:22:33:44:55");
	want.push_back("<6>[tm_proc_write]: c=+, mac=00:11:22:33:44:55, url=\n\n");
	EXPECT_EQ(want, take_log());
	auto list = ublk_entries();
	ASSERT_EQ(1u, list.size());
	ublk_entry *e = list[0];
	EXPECT_EQ(t0, e->stamp);
	EXPECT_EQ(0, e->has_url);
	EXPECT_STREQ("", e->url);
	EXPECT_EQ(1, atomic_read(&e->refcnt));

	auto m = mac(kMac);
	int expired = 7;
	kmodel_advance_jiffies(UBLK_EXPIRE_TICKS - 1);
	EXPECT_EQ(e, ublk_get(m.data(), &expired));
	EXPECT_EQ(0, expired);
	EXPECT_EQ(0, has_expired(e));
	kmodel_advance_jiffies(1);
	EXPECT_EQ(e, ublk_get(m.data(), &expired));
	EXPECT_EQ(1, expired);
	EXPECT_EQ(1, has_expired(e));
	EXPECT_EQ(3, atomic_read(&e->refcnt));

	// No match leaves the caller's flag as it was.
	expired = 7;
	EXPECT_EQ(nullptr, ublk_get(mac("00:11:22:33:44:56").data(), &expired));
	EXPECT_EQ(7, expired);

	// A hook that finds it expired deletes it: unlinked, never freed.
	ublk_delete(e);
	EXPECT_TRUE(ublk_entries().empty());
	EXPECT_TRUE(kmodel_is_live(e));
	EXPECT_EQ(2, atomic_read(&e->refcnt));
	EXPECT_EQ(1, entries_alive());
	EXPECT_TRUE(take_log().empty());
}

TEST_F(Lists, UnblockExpiryAgreesWithWideArithmetic)
{
	auto m = mac(kMac);
	u32 seed = 99;
	for (int n = 0; n < 4000; n++) {
		seed = seed * 1664525u + 1013904223u;
		u32 stamp = n % 2 ? 0xffffffffu - (seed >> 12) : seed;
		seed = seed * 1664525u + 1013904223u;
		uint64_t age = n % 3 ? 900000 - 2000 + seed % 4000 : seed % 0x80000000u;
		kmodel_set_jiffies(stamp);
		ASSERT_EQ(0, ublk_insert(m.data(), "", 0));
		kmodel_set_jiffies((u32)(stamp + age));
		int expired = -1;
		ublk_entry *e = ublk_get(m.data(), &expired);
		ASSERT_NE(nullptr, e);
		ASSERT_EQ(age >= 900000 ? 1 : 0, expired) << "stamp " << stamp << " age " << age;
		ublk_flush(1);
		EXPECT_EQ(age >= 900000, ublk_entries().empty());
		ublk_flush(0);
		ublk_free(e); // this caller gives its reference back
	}
	EXPECT_EQ(0, entries_alive());
}

TEST_F(Lists, UnblockReplaceByDeviceAndByUrl)
{
	kmodel_set_jiffies(1000);
	ASSERT_EQ(-EFAULT, unblock("+|00:11:22:33:44:55"));
	ublk_entry *first = ublk_entries()[0];
	kmodel_advance_jiffies(100);
	long sections = kmodel_bh_sections();
	ASSERT_EQ(-EFAULT, unblock("+x|00:11:22:33:44:55")); // text before the "|" is ignored
	EXPECT_EQ(sections + 3, kmodel_bh_sections()); // look-up, delete, insert
	auto list = ublk_entries();
	ASSERT_EQ(1u, list.size());
	EXPECT_NE(first, list[0]);
	EXPECT_EQ(1100u, list[0]->stamp);
	// The replaced entry keeps the look-up's reference and stays allocated.
	EXPECT_TRUE(kmodel_is_live(first));
	EXPECT_EQ(1, atomic_read(&first->refcnt));
	EXPECT_EQ(2, entries_alive());

	take_log();
	ASSERT_EQ(-EFAULT, unblock("+|00:11:22:33:44:55|Site/Page"));
	ASSERT_EQ(-EFAULT, unblock("+|00:11:22:33:44:55|SITE/page\n"));
	EXPECT_EQ("<6>[tm_proc_write]: c=+, mac=00:11:22:33:44:55, url=|SITE/page\n\n\n", take_log().back());
	ASSERT_EQ(-EFAULT, unblock("+|00:11:22:33:44:55|SITE/page"));
	ASSERT_EQ(-EFAULT, unblock("+|00:11:22:33:44:55|"));
	int expired = 0;
	ublk_entry *device = ublk_get(mac(kMac).data(), &expired);
	list = ublk_entries();
	ASSERT_EQ(4u, list.size()); // newest first in the device's chain
	EXPECT_STREQ("|", list[0]->url);
	EXPECT_STREQ("|SITE/page", list[1]->url);
	EXPECT_STREQ("|SITE/page\n", list[2]->url); // the newline is part of the URL
	EXPECT_EQ(device, list[3]);
	for (int i = 0; i < 3; i++)
		EXPECT_EQ(1, list[i]->has_url);
	EXPECT_EQ(6, entries_alive()); // also the two replaced ones

	// Only device-wide entries answer ublk_get; the URL look-up ignores case.
	EXPECT_EQ(list[1], ublk_get_with_url(mac(kMac).data(), "|site/PAGE", &expired));
	ublk_delete(device);
	EXPECT_EQ(nullptr, ublk_get(mac(kMac).data(), &expired));

	// "-" removes every exemption of the device; those never looked up are freed.
	take_log();
	EXPECT_EQ(19, unblock("-|00:11:22:33:44:55"));
	Lines want = write_echo("-|00:11:22:33:44:55");
	want.push_back("<6>[tm_proc_write]: c=-, mac=00:11:22:33:44:55, url=\n\n");
	EXPECT_EQ(want, take_log());
	EXPECT_TRUE(ublk_entries().empty());
	// Kept: the two replaced entries, the device entry and the URL entry
	// that was looked up.
	EXPECT_EQ(4, entries_alive());
}

TEST_F(Lists, UnblockUrlLengthAndDirectInterface)
{
	std::string head = "+|00:11:22:33:44:55|";
	std::string cmd = head + std::string(299 - head.size(), 'u');
	ASSERT_EQ(-EFAULT, unblock(cmd));
	auto list = ublk_entries();
	ASSERT_EQ(1u, list.size());
	EXPECT_EQ("|" + std::string(254, 'u'), list[0]->url);
	ublk_flush(0);

	// A short URL argument is never read past its end.
	auto m = mac(kMac);
	ASSERT_EQ(0, ublk_insert(m.data(), "|a", 1));
	ASSERT_EQ(0, ublk_insert(m.data(), "|b", 0x100)); // copied, but the flag keeps 8 bits
	list = ublk_entries();
	EXPECT_EQ(0, list[0]->has_url);
	EXPECT_STREQ("|b", list[0]->url);
	ublk_delete_by_url("|a");
	list = ublk_entries();
	ASSERT_EQ(1u, list.size());
	EXPECT_EQ(0, list[0]->has_url);
	ublk_delete(NULL);
	ublk_delete_by_mac(m.data());
	EXPECT_EQ(0, entries_alive());
}

TEST_F(Lists, UnblockFlushCommandsAndPendingFlag)
{
	auto fill = [&] {
		ASSERT_EQ(-EFAULT, unblock("+|00:11:22:33:44:55"));
		ASSERT_EQ(-EFAULT, unblock("+|00:11:22:33:44:66|x"));
	};
	struct { const char *cmd; bool flag; bool emptied; } cases[] = {
		{ "=|flush_ssl", true, false },   { "=|flush_ssl\n", true, true },
		{ "=|flush_ublk", false, true },  { "=|flush_ublk\n", true, true },
		{ "=", true, true },              { "=|FLUSH_SSL", true, true },
		{ "=|flush_ssl ", true, true },
	};
	for (auto &c : cases) {
		SCOPED_TRACE(c.cmd);
		fill();
		set_flush_supending(0);
		take_log();
		std::string text = c.cmd;
		EXPECT_EQ((int)text.size(), unblock(text));
		EXPECT_EQ(c.flag ? 1 : 0, get_flush_supending());
		EXPECT_EQ(c.emptied ? 0u : 2u, ublk_entries().size());
		EXPECT_EQ(write_echo(text), take_log());
		ublk_flush(0);
	}
	EXPECT_EQ(0, entries_alive());

	// The flag keeps its value until a DNS hook resets it.
	long sections = kmodel_bh_sections();
	set_flush_supending(1);
	EXPECT_EQ(1, get_flush_supending());
	EXPECT_EQ(1, get_flush_supending());
	EXPECT_EQ(sections + 3, kmodel_bh_sections());
}

TEST_F(Lists, UnblockRefusals)
{
	ASSERT_EQ(-EFAULT, unblock("+|00:11:22:33:44:55"));
	take_log();
	long sections = kmodel_bh_sections();

	// Refused writes: the echo, and the parsed command once a "|" follows it.
	struct { const char *text; int result; const char *parsed; } cases[] = {
		{ "+00:11:22:33:44:55", -EFAULT, nullptr },
		{ "", -EFAULT, nullptr },
		{ "x|00:11:22:33:44:55", 19, "<6>[tm_proc_write]: c=x, mac=00:11:22:33:44:55, url=\n\n" },
		{ "+|01:00:5e:00:00:01", 19, "<6>[tm_proc_write]: c=+, mac=01:00:5e:00:00:01, url=\n\n" },
		{ "+|00:00:00:00:00:00", 19, "<6>[tm_proc_write]: c=+, mac=00:00:00:00:00:00, url=\n\n" },
		{ "+|", 2, "<6>[tm_proc_write]: c=+, mac=00:00:00:00:00:00, url=\n\n" },
	};
	for (auto &c : cases) {
		SCOPED_TRACE(c.text);
		EXPECT_EQ(c.result, unblock(c.text));
		Lines want = write_echo(c.text);
		if (c.parsed)
			want.push_back(c.parsed);
		EXPECT_EQ(want, take_log());
	}
	EXPECT_EQ(sections, kmodel_bh_sections()); // no list operation ran

	// Too long or unreadable: -EFAULT after the first line, which shows no
	// more than the buffer holds.
	std::string cmd = "-|00:11:22:33:44:55";
	std::string long_cmd = cmd + std::string(300 - cmd.size(), ' ');
	EXPECT_EQ(-EFAULT, unblock(long_cmd));
	EXPECT_EQ(-EFAULT, kmodel_proc_write("unblock_proc", cmd.data(), cmd.size(), /*bad_address=*/true));
	EXPECT_EQ((Lines{ "<7>[tm_proc_write]: buff=" + long_cmd + ", len=300\n\n",
			  "<7>[tm_proc_write]: buff=, len=19\n\n" }), take_log());
	EXPECT_EQ(1u, ublk_entries().size());
	// The first line echoes the caller's text whole, up to its first NUL
	// and within the count; a log line holds 1023 characters at most.
	std::string huge = cmd + std::string(2000, 'x');
	EXPECT_EQ(-EFAULT, unblock(huge));
	std::string huge_line = "<7>[tm_proc_write]: buff=" + huge;
	EXPECT_EQ(Lines{ huge_line.substr(0, 1023) }, take_log());
	std::string nul_early = cmd + std::string(1, '\0') + std::string(400, 'y');
	EXPECT_EQ(-EFAULT, unblock(nul_early));
	EXPECT_EQ(Lines{ "<7>[tm_proc_write]: buff=" + cmd + ", len=420\n\n" }, take_log());
	// Only the count is read: text behind it never shows.
	EXPECT_EQ(-EFAULT, kmodel_proc_write("unblock_proc", huge.data(), 305, false));
	EXPECT_EQ("<7>[tm_proc_write]: buff=" + huge.substr(0, 305) + ", len=305\n\n", take_log().at(0));

	// A NUL with text behind it would change the command (a URL exemption
	// read as a device-wide one, a flush of one list only): refused, and
	// nothing changes. Trailing NULs end the command as a terminator would.
	struct {
		std::string text;
		int result;
		size_t entries;
		int flush;
	} nuls[] = {
		{ std::string("+|00:11:22:33:44:77\0|site/page", 31), -EINVAL, 1, 0 },
		{ std::string("=|flush_ublk\0x", 14), -EINVAL, 1, 0 },
		{ std::string("-|00:11:22:33:44:55\0\0", 21), 21, 0, 0 },
		{ std::string("=|flush_ssl\0", 12), 12, 0, 1 },
	};
	for (auto &c : nuls) {
		SCOPED_TRACE(c.result);
		EXPECT_EQ(c.result, unblock(c.text));
		EXPECT_EQ(c.entries, ublk_entries().size());
		EXPECT_EQ(c.flush, get_flush_supending());
		take_log();
	}
	set_flush_supending(0);
	EXPECT_EQ(-EFAULT, unblock("+|00:11:22:33:44:55"));

	// "-" takes the address unchecked; an insertion that cannot allocate
	// still deletes the old exemption and returns the count.
	EXPECT_EQ(2, unblock("-|"));
	EXPECT_EQ(1u, ublk_entries().size());
	kmodel_fail_alloc_flags(GFP_ATOMIC);
	EXPECT_EQ(19, unblock("+|00:11:22:33:44:55"));
	kmodel_fail_alloc_flags(0);
	EXPECT_TRUE(ublk_entries().empty());
	EXPECT_EQ(1, entries_alive()); // the deleted one, held by the look-up
}

} // namespace
} // namespace lists_test
