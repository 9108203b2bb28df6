// The switch files: the bytes a user may write, and what each does.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "core/hook_registry.h"
#include "kmodel/host.h"
#include "linux/errno.h"
#include "sim/router.h"

namespace {

using Lines = std::vector<std::string>;

class SwitchFiles : public ::testing::Test {
protected:
	void SetUp() override
	{
		ASSERT_EQ(0, router.load());
		kmodel_log_clear();
	}
	int write(const char *file, const std::string &text) { return router.write_proc(file, text); }
	std::vector<const nf_hook_ops *> forward4() { return kmodel_nf_hooks(PF_INET, NF_INET_FORWARD); }
	std::vector<const nf_hook_ops *> forward6() { return kmodel_nf_hooks(PF_INET6, NF_INET_FORWARD); }

	sim::Router router;
};

TEST_F(SwitchFiles, WpOnAndOff)
{
	EXPECT_EQ(2, write("wl_warning_page", "1\n"));
	EXPECT_EQ(1, wp_enabled);
	EXPECT_EQ((std::vector<const nf_hook_ops *>{ &hook_ops, &pct_hook_ops }), forward4());
	EXPECT_EQ((std::vector<const nf_hook_ops *>{ &hook_ops6, &pct6_hook_ops }), forward6());

	EXPECT_EQ(1, write("wl_warning_page", "1")); // again, single byte
	EXPECT_EQ(2, write("wl_warning_page", "0\n"));
	EXPECT_EQ(0, wp_enabled);
	EXPECT_EQ(1u, forward4().size());
	EXPECT_EQ(1, write("wl_warning_page", "0")); // already off

	EXPECT_EQ((Lines{
			  "<7>[wp_proc_write]: --- Enable wireless warning page ---\n",
			  "<6>[wp_hook]: Wireless warning page => Enable\n",
			  "<7>[wp_proc_write]: --- Enable wireless warning page ---\n",
			  "<4>[wp_hook]: hook already registered\n",
			  "<7>[wp_proc_write]: --- Disable wireless warning page ---\n",
			  "<6>[wp_unhook]: exit netfiler hook on demand\n",
			  "<7>[wp_proc_write]: --- Disable wireless warning page ---\n",
			  "<4>[wp_unhook]: hook already unregistered\n",
		  }),
		  kmodel_log());
}

TEST_F(SwitchFiles, PcOnAndOffAndHookOrderWithBoth)
{
	EXPECT_EQ(2, write("pcg_proc", "1\n"));
	EXPECT_EQ(2, write("wl_warning_page", "1\n"));
	EXPECT_EQ(1, pc_enabled);
	// Priority, not registration order, decides the walk.
	EXPECT_EQ((std::vector<const nf_hook_ops *>{ &hook_ops, &pct_hook_ops, &https_hook_ops }), forward4());
	EXPECT_EQ((std::vector<const nf_hook_ops *>{ &hook_ops6, &pct6_hook_ops, &https6_hook_ops }), forward6());
	EXPECT_EQ(2, write("pcg_proc", "0\n"));
	EXPECT_EQ(1, write("pcg_proc", "0"));
	EXPECT_EQ((Lines{
			  "<7>[pc_proc_write]: --- Enable PCG ---\n",
			  "<6>[pcg_hook]: Parental Control => Enable\n",
			  "<7>[wp_proc_write]: --- Enable wireless warning page ---\n",
			  "<6>[wp_hook]: Wireless warning page => Enable\n",
			  "<7>[pc_proc_write]: --- Disable PCG ---\n",
			  "<6>[pcg_unhook]: Parental Control => Disable\n",
			  "<7>[pc_proc_write]: --- Disable PCG ---\n",
			  "<4>[pcg_unhook]: hook already unregistered\n",
		  }),
		  kmodel_log());
}

TEST_F(SwitchFiles, OtherBytesLengthsAndAddresses)
{
	EXPECT_EQ(3, write("wl_warning_page", "10\n")); // three bytes: ignored
	EXPECT_EQ(300, write("pcg_proc", std::string(300, '1')));
	EXPECT_EQ(1, write("wl_warning_page", "x"));
	EXPECT_EQ(0, write("pcg_proc", ""));
	EXPECT_EQ(2, write("pcg_proc", "x1")); // only the first byte counts
	EXPECT_EQ(1, write("pcg_proc", "\xff")); // plain char is signed
	EXPECT_EQ(-EFAULT, kmodel_proc_write("wl_warning_page", "1", 1, /*bad_address=*/true));
	EXPECT_EQ(-EFAULT, kmodel_proc_write("pcg_proc", "1\n", 2, /*bad_address=*/true));
	// A bad address with three bytes or more is never looked at.
	EXPECT_EQ(3, kmodel_proc_write("pcg_proc", "1\n\n", 3, /*bad_address=*/true));
	EXPECT_EQ(0, wp_enabled);
	EXPECT_EQ(0, pc_enabled);
	EXPECT_EQ(1u, forward4().size());
	EXPECT_EQ((Lines{
			  "<7>[wp_proc_write]: --- string=0x78 ---\n",
			  "<7>[pc_proc_write]: --- string=0x0 ---\n",
			  "<7>[pc_proc_write]: --- string=0x78 ---\n",
			  "<7>[pc_proc_write]: --- string=0xffffffff ---\n",
		  }),
		  kmodel_log());
}

TEST_F(SwitchFiles, Ipv6RegistrationFailureIsNotUndone)
{
	kmodel_fail_nf_register_nth(2, -EINTR); // the IPv6 member
	EXPECT_EQ(2, write("wl_warning_page", "1\n"));
	EXPECT_EQ("<3>[wp_hook]: nf_register_hook6 fail\n", kmodel_log().back());
	EXPECT_EQ(0, wp_enabled);
	EXPECT_TRUE(kmodel_nf_registered(&pct_hook_ops));
	EXPECT_FALSE(kmodel_nf_registered(&pct6_hook_ops));

	// '0' finds the flag clear and leaves the IPv4 member registered.
	EXPECT_EQ(1, write("wl_warning_page", "0"));
	EXPECT_EQ("<4>[wp_unhook]: hook already unregistered\n", kmodel_log().back());
	EXPECT_TRUE(kmodel_nf_registered(&pct_hook_ops));

	// PC reports the IPv6 failure with the IPv4 line.
	kmodel_fail_nf_register_nth(2, -EINTR);
	EXPECT_EQ(1, write("pcg_proc", "1"));
	EXPECT_EQ("<3>[pcg_hook]: nf_register_hook fail\n", kmodel_log().back());
	EXPECT_TRUE(kmodel_nf_registered(&https_hook_ops));
	EXPECT_EQ(0, pc_enabled);

	kmodel_fail_nf_register_nth(1, -EINTR);
	EXPECT_EQ(1, write("pcg_proc", "1"));
	EXPECT_EQ("<3>[pcg_hook]: nf_register_hook fail\n", kmodel_log().back());

	// Unload leaves the half-registered members behind, as the module does.
	router.unload();
	EXPECT_TRUE(kmodel_nf_registered(&pct_hook_ops));
	EXPECT_TRUE(kmodel_nf_registered(&https_hook_ops));
}

} // namespace
