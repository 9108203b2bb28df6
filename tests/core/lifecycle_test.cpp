// Load and unload: order, return codes, log lines, and what stays in place
// when a step fails.
#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "core/hook_registry.h"
#include "core/switch_files.h"
#include "kmodel/host.h"
#include "kmodel/net.h"
#include "linux/module.h"
#include "linux/netlink.h"
#include "linux/slab.h"
#include "sim/router.h"

namespace {

using Lines = std::vector<std::string>;

const Lines kLoadLog = {
	"<6>[cbt_tcp_init]: init tcp module ..\n", "<6>[init]: tcp_init ok\n",
	"<6>[dns_init]: init dns module ..\n",     "<6>[init]: dns_init ok\n",
	"<6>[pct_init]: init pct module ..\n",     "<6>[init]: pct_init ok\n",
	"<6>[pct6_init]: init pct module ..\n",    "<6>[init]: pct6_init ok\n",
	"<6>[ssl_init]: init ssl module ..\n",     "<6>[init]: ssl_init ok\n",
	"<6>[ssl6_init]: init ssl module ..\n",    "<6>[init]: ssl6_init ok\n",
};

const Lines kTablesFiniLog = {
	"<6>[ssl_fini]: exit ssl module ..\n",  "<6>[pct_fini]: exit pct module ..\n",
	"<6>[ssl6_fini]: exit ssl module ..\n", "<6>[pct6_fini]: exit pct module ..\n",
	"<6>[dns_fini]: exit dns module ..\n",  "<6>[cbt_tcp_fini]: exit tcp module ..\n",
};

Lines concat(Lines a, const Lines &b)
{
	a.insert(a.end(), b.begin(), b.end());
	return a;
}

bool is_prefix(const Lines &a, const Lines &b)
{
	return a.size() <= b.size() && std::equal(a.begin(), a.end(), b.begin());
}

Lines log_without_channel(void)
{
	// The channel may log its own lines at the end of a successful load.
	Lines out;
	for (const auto &l : kmodel_log())
		if (l.find("[nlink_init]") == std::string::npos)
			out.push_back(l);
	return out;
}

TEST(Lifecycle, LoadRegistersAlwaysOnHooksAndFiles)
{
	sim::Router r;
	ASSERT_EQ(0, r.load());
	EXPECT_EQ(kLoadLog, log_without_channel());

	// Each point holds exactly the filter's hook, at the most negative priority.
	struct { int pf; unsigned hook; const nf_hook_ops *ops; } points[] = {
		{ PF_INET, NF_INET_FORWARD, &hook_ops },       { PF_INET6, NF_INET_FORWARD, &hook_ops6 },
		{ PF_INET, NF_INET_PRE_ROUTING, &dns_hook_ops }, { PF_INET6, NF_INET_PRE_ROUTING, &dns6_hook_ops },
	};
	for (auto &p : points) {
		auto hooks = kmodel_nf_hooks(p.pf, p.hook);
		ASSERT_EQ(1u, hooks.size());
		EXPECT_EQ(p.ops, hooks[0]);
		EXPECT_EQ(INT_MIN, hooks[0]->priority);
		EXPECT_EQ(nullptr, hooks[0]->owner);
	}
	for (auto *ops : { &pct_hook_ops, &pct6_hook_ops, &https_hook_ops, &https6_hook_ops })
		EXPECT_FALSE(kmodel_nf_registered(ops));
	EXPECT_EQ(0, wp_enabled);
	EXPECT_EQ(0, pc_enabled);

	for (const char *name : { "wl_warning_page", "pcg_proc" }) {
		const proc_dir_entry *e = kmodel_proc_entry(name);
		ASSERT_NE(nullptr, e) << name;
		EXPECT_EQ(0644u, e->mode);
		EXPECT_EQ(nullptr, e->read_proc);
		EXPECT_EQ(nullptr, e->parent);
	}
	EXPECT_EQ(wp_proc_write, kmodel_proc_entry("wl_warning_page")->write_proc);
	EXPECT_EQ(pc_proc_write, kmodel_proc_entry("pcg_proc")->write_proc);
	EXPECT_TRUE(kmodel_netlink_kernel_exists(NETLINK_USERSOCK));
	EXPECT_EQ(1, kmodel_netlink_kernel_sockets());
	r.unload();
	EXPECT_EQ(0, kmodel_netlink_kernel_sockets());

	// Without a channel the load still succeeds, with the channel's line;
	// the unload then has no socket to release.
	kmodel_fail_netlink_create_nth(1);
	kmodel_log_clear();
	ASSERT_EQ(0, r.load());
	EXPECT_EQ(concat(kLoadLog, { "<3>[nlink_init]: netlink socket create failed\n" }), kmodel_log());
	EXPECT_FALSE(kmodel_netlink_kernel_exists(NETLINK_USERSOCK));
	r.unload();
	EXPECT_EQ(0, kmodel_netlink_kernel_sockets());
}

TEST(Lifecycle, UnloadWithServicesOffAndOn)
{
	for (bool on : { false, true }) {
		sim::Router r;
		ASSERT_EQ(0, r.load());
		if (on) {
			ASSERT_EQ(2, r.write_proc("wl_warning_page", "1\n"));
			ASSERT_EQ(2, r.write_proc("pcg_proc", "1\n"));
			EXPECT_EQ(3u, kmodel_nf_hooks(PF_INET, NF_INET_FORWARD).size());
		}
		kmodel_log_clear();
		r.unload();
		EXPECT_EQ(concat(kTablesFiniLog, on ? Lines{ "<6>[wp_unhook]: exit netfiler hook on demand\n",
							     "<6>[pcg_unhook]: Parental Control => Disable\n" }
						    : Lines{ "<4>[wp_unhook]: hook already unregistered\n",
							     "<4>[pcg_unhook]: hook already unregistered\n" }),
			  kmodel_log());
		EXPECT_FALSE(kmodel_proc_exists("wl_warning_page") || kmodel_proc_exists("pcg_proc"));
		for (int pf : { PF_INET, PF_INET6 })
			for (unsigned h : { NF_INET_PRE_ROUTING, NF_INET_FORWARD })
				EXPECT_TRUE(kmodel_nf_hooks(pf, h).empty());
		EXPECT_EQ(0, wp_enabled | pc_enabled);
	}
}

// Every allocation of the load, failed in turn: the load stops at once with
// -14 after the failing step's line, the log before it is the successful
// log up to that step (plus the table's own failure line), and nothing set
// up before is undone. Every list and table step is reached this way.
TEST(Lifecycle, EachAllocationFailingStopsTheLoad)
{
	long allocs;
	{
		sim::Router r;
		ASSERT_EQ(0, r.load());
		allocs = kmodel_alloc_stats_get().total_allocs;
	}
	std::set<std::string> failed_steps;
	for (long n = 1; n <= allocs; n++) {
		SCOPED_TRACE("allocation " + std::to_string(n));
		sim::Router r;
		kmodel_fail_alloc_nth(n);
		ASSERT_EQ(-14, r.load());
		Lines log = kmodel_log();
		ASSERT_FALSE(log.empty());
		std::string last = log.back();
		log.pop_back();
		ASSERT_EQ(0u, last.rfind("<3>[init]: ", 0)) << last;
		failed_steps.insert(last);
		// Everything logged before the step's line is the successful log up
		// to that step, but for the failing table's own "<3>" line.
		Lines ok_part;
		for (const auto &l : log)
			if (l.rfind("<3>", 0) != 0)
				ok_part.push_back(l);
		EXPECT_TRUE(is_prefix(ok_part, kLoadLog));
		EXPECT_LE(log.size(), ok_part.size() + 1);
		EXPECT_EQ(n - 1, kmodel_alloc_stats_get().live_blocks); // nothing freed
		EXPECT_TRUE(kmodel_nf_hooks(PF_INET, NF_INET_FORWARD).empty());
		EXPECT_FALSE(kmodel_proc_exists("wl_warning_page"));
	}
	EXPECT_EQ((std::set<std::string>{
			  "<3>[init]: tblock_init fail\n", "<3>[init]: unblock_init fail\n",
			  "<3>[init]: tcp_init fail\n", "<3>[init]: dns_init fail\n",
			  "<3>[init]: pct_init fail\n", "<3>[init]: pct6_init fail\n",
			  "<3>[init]: ssl_init fail\n", "<3>[init]: ssl6_init fail\n" }),
		  failed_steps);
}

TEST(Lifecycle, RegistrationFailuresLeaveEarlierHooks)
{
	const char *lines[] = {
		"<3>[init]: nf_register_hook fail\n",
		"<3>[init]: nf_register_hook(hook_ops6) fail\n",
		"<3>[init]: nf_register_hook(dns_hook_ops) fail\n",
		"<3>[init]: nf_register_hook(dns6_hook_ops) fail\n",
	};
	const nf_hook_ops *order[] = { &hook_ops, &hook_ops6, &dns_hook_ops, &dns6_hook_ops };
	for (int n = 1; n <= 4; n++) {
		SCOPED_TRACE("registration " + std::to_string(n));
		sim::Router r;
		kmodel_fail_nf_register_nth(n, -EINTR);
		EXPECT_EQ(-14, r.load());
		Lines expect = kLoadLog;
		expect.push_back(lines[n - 1]);
		EXPECT_EQ(expect, kmodel_log());
		for (int i = 0; i < 4; i++)
			EXPECT_EQ(i < n - 1, kmodel_nf_registered(order[i])) << i;
		EXPECT_FALSE(kmodel_proc_exists("wl_warning_page"));
	}
}

// The third and fourth files are the switch files: -ENOMEM, the earlier
// file and hooks are not unwound.
TEST(Lifecycle, SwitchFileFailuresReturnNoMemory)
{
	for (int nth : { 3, 4 }) {
		sim::Router r;
		kmodel_fail_proc_create_nth(nth);
		EXPECT_EQ(-12, r.load());
		EXPECT_EQ("<3>[create_proc]: create proc entry failed!\n", kmodel_log().back());
		EXPECT_EQ(nth == 4, kmodel_proc_exists("wl_warning_page"));
		EXPECT_FALSE(kmodel_proc_exists("pcg_proc"));
		EXPECT_EQ(2u, kmodel_nf_hooks(PF_INET, NF_INET_FORWARD).size() +
				      kmodel_nf_hooks(PF_INET, NF_INET_PRE_ROUTING).size());
	}
}

// Bit 0 wins on create; remove looks at bit 0 only.
TEST(Lifecycle, CreateAndRemoveProcBitSelection)
{
	kmodel_reset();
	struct { bool create; int bits; bool wp, pc; } steps[] = {
		{ true, 0, false, false }, { true, 3, true, false }, { true, 2, true, true },
		{ false, 3, false, true }, { false, 2, false, false },
	};
	for (auto &st : steps) {
		if (st.create)
			EXPECT_EQ(0, create_proc(st.bits));
		else
			remove_proc(st.bits);
		EXPECT_EQ(st.wp, kmodel_proc_exists("wl_warning_page")) << st.bits;
		EXPECT_EQ(st.pc, kmodel_proc_exists("pcg_proc")) << st.bits;
	}
	EXPECT_TRUE(kmodel_log().empty());
}

} // namespace
