// The model's plain parts: character classes, string compares, strtoul,
// user copies, the allocator and the netfilter walk. Ticks across the wrap
// and the lists are followed by the table model test.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "kmodel/host.h"
#include "linux/ctype.h"
#include "linux/kernel.h"
#include "linux/list.h"
#include "linux/netfilter.h"
#include "linux/slab.h"
#include "linux/string.h"
#include "linux/uaccess.h"

namespace {

TEST(KernelCtype, Latin1FoldsLikeTheKernel)
{
	// À -> à, Þ -> þ; × is punctuation, ß has no upper case here.
	int folds[][2] = { { 'A', 'a' }, { 0xc0, 0xe0 }, { 0xde, 0xfe }, { 0xd7, 0xd7 }, { 0xdf, 0xdf }, { 0x80, 0x80 } };
	for (auto &f : folds)
		EXPECT_EQ(f[1], tolower(f[0])) << f[0];
	EXPECT_TRUE(isspace(0xa0));
	EXPECT_TRUE(isxdigit('F'));
	EXPECT_FALSE(isxdigit('g'));

	EXPECT_EQ(0, strcasecmp("WWW.Example.COM", "www.example.com"));
	EXPECT_EQ(0, strcasecmp("\xc0\xc9", "\xe0\xe9")); // the C library says otherwise
	EXPECT_LT(strcasecmp("abc", "abd"), 0);
	EXPECT_GT(strcasecmp("abcd", "abc"), 0);
	EXPECT_EQ(0, strncasecmp("HOST: x", "host: y", 6));
	EXPECT_NE(0, strncasecmp("HOST: x", "host: y", 7));
}

TEST(KernelStrtoul, BasesEndsAndWidth)
{
	struct { const char *text; unsigned base; unsigned long value; const char *rest; } cases[] = {
		{ "1234abc", 10, 1234, "abc" }, { "0x1ffz", 0, 0x1ff, "z" }, { "0X1F", 16, 0x1f, "" },
		{ "010", 0, 8, "" },         // leading 0: octal
		{ "0x", 0, 0, "x" },         // "0x" without digit: octal 0, stops at x
		{ "-5", 10, 0, "-5" }, { "aB:cd", 16, 0xab, ":cd" },
		// The router's unsigned long is 32 bits wide.
		{ "4294967295", 10, 4294967295ul, "" }, { "4294967296", 10, 0, "" }, { "4294967297", 10, 1, "" },
	};
	for (auto &c : cases) {
		char *end;
		EXPECT_EQ(c.value, simple_strtoul(c.text, &end, c.base)) << c.text;
		EXPECT_STREQ(c.rest, end) << c.text;
	}
	EXPECT_EQ(1ul, simple_strtoul("4294967297", nullptr, 10));
}

TEST(KernelUaccess, CopiesOnlyFromMappedUserMemory)
{
	kmodel_reset();
	char user[8] = { 'a', 'b', 'c', 'd', 'e', 'f', 'g', 'h' };
	char to[8];
	EXPECT_EQ(8ul, copy_from_user(to, user, 8)); // not mapped yet
	kmodel_user_map(user, 4);
	EXPECT_TRUE(access_ok(VERIFY_READ, user, 4));
	EXPECT_FALSE(access_ok(VERIFY_READ, user, 5));
	EXPECT_EQ(0ul, copy_from_user(to, user + 1, 3));
	EXPECT_EQ(0, memcmp(to, "bcd", 3));
	memset(to, 'z', sizeof(to));
	EXPECT_EQ(2ul, copy_from_user(to, user + 2, 4)); // runs off the end
	EXPECT_EQ(0, memcmp(to, "cd\0\0", 4)); // the rest is zeroed
	kmodel_user_unmap(user);
	EXPECT_EQ(1ul, copy_from_user(to, user, 1));
}

TEST(KernelSlab, AccountingAndInjectedFailures)
{
	kmodel_reset();
	void *a = kmalloc(10, GFP_KERNEL);
	void *b = kmalloc(20, GFP_ATOMIC);
	ASSERT_TRUE(a && b);
	EXPECT_EQ(2, kmodel_alloc_stats_get().live_blocks);
	EXPECT_EQ(30u, kmodel_alloc_stats_get().live_bytes);

	kmodel_fail_alloc_nth(2);
	void *c = kmalloc(1, GFP_KERNEL);
	EXPECT_EQ(nullptr, kmalloc(1, GFP_KERNEL));
	void *d = kmalloc(1, GFP_KERNEL); // only the n-th fails
	kmodel_fail_alloc_flags(GFP_ATOMIC);
	EXPECT_EQ(nullptr, kmalloc(1, GFP_ATOMIC));
	void *e = kmalloc(1, GFP_KERNEL);
	kmodel_fail_alloc_flags(0);
	EXPECT_TRUE(c && d && e);
	EXPECT_EQ(2, kmodel_alloc_stats_get().failed_allocs);

	for (void *p : { a, b, c, d, e })
		kfree(p);
	kfree(nullptr);
	EXPECT_EQ(0, kmodel_alloc_stats_get().live_blocks);
	EXPECT_FALSE(kmodel_is_live(a));
	EXPECT_DEATH(kfree(a), "double free");
}

std::vector<int> g_calls;

template <int Id, unsigned Verdict>
unsigned int record_hook(unsigned int, struct sk_buff *, const struct net_device *, const struct net_device *,
			 int (*)(struct sk_buff *))
{
	g_calls.push_back(Id);
	return Verdict;
}

TEST(KernelNetfilter, WalkFollowsPriorityAndStopsAtAVerdict)
{
	kmodel_reset();
	g_calls.clear();
	nf_hook_ops late = { {}, record_hook<3, NF_ACCEPT>, nullptr, PF_INET, NF_INET_FORWARD, 100 };
	nf_hook_ops first = { {}, record_hook<1, NF_ACCEPT>, nullptr, PF_INET, NF_INET_FORWARD, INT_MIN };
	nf_hook_ops second = { {}, record_hook<2, NF_ACCEPT>, nullptr, PF_INET, NF_INET_FORWARD, INT_MIN + 1 };
	nf_hook_ops same = { {}, record_hook<4, NF_ACCEPT>, nullptr, PF_INET, NF_INET_FORWARD, INT_MIN + 1 };
	nf_hook_ops other = { {}, record_hook<9, NF_DROP>, nullptr, PF_INET6, NF_INET_FORWARD, 0 };
	for (auto *ops : { &late, &second, &first, &same, &other })
		ASSERT_EQ(0, nf_register_hook(ops));

	// Equal priorities keep registration order; DROP ends the walk, STOP
	// ends it with an accept.
	struct { nf_hookfn *second_hook; unsigned verdict; std::vector<int> calls; } walks[] = {
		{ record_hook<2, NF_ACCEPT>, NF_ACCEPT, { 1, 2, 4, 3 } },
		{ record_hook<2, NF_DROP>, NF_DROP, { 1, 2 } },
		{ record_hook<2, NF_STOP>, NF_ACCEPT, { 1, 2 } },
	};
	for (auto &w : walks) {
		g_calls.clear();
		second.hook = w.second_hook;
		EXPECT_EQ(w.verdict, kmodel_nf_hook(PF_INET, NF_INET_FORWARD, nullptr, nullptr, nullptr));
		EXPECT_EQ(w.calls, g_calls);
	}
	g_calls.clear();
	nf_unregister_hook(&first);
	EXPECT_EQ((unsigned)NF_ACCEPT, kmodel_nf_hook(PF_INET, NF_INET_PRE_ROUTING, nullptr, nullptr, nullptr));
	EXPECT_TRUE(g_calls.empty());
	EXPECT_FALSE(kmodel_nf_registered(&first));

	kmodel_fail_nf_register_nth(1, -EINTR);
	EXPECT_EQ(-EINTR, nf_register_hook(&first));
	EXPECT_FALSE(kmodel_nf_registered(&first));
	kmodel_reset();
}

} // namespace
