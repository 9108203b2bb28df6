// Load and unload. A failing load step returns at once and leaves the
// steps before it in place: nothing is unwound.
#include "core/channel.h"
#include "core/hook_registry.h"
#include "core/switch_files.h"
#include "core/verdict.h"
#include "linux/errno.h"
#include "linux/kernel.h"
#include "linux/module.h"
#include "lists/tblock.h"
#include "lists/unblock.h"
#include "track/dns_table.h"
#include "track/pct_table.h"
#include "track/ssl_table.h"
#include "track/tcp_table.h"

MODULE_LICENSE("GPL");

// A tracking table's init reports failure as -1 only.
static int table_init(int (*init)(void), const char *what)
{
	if (init() == -1) {
		printk("<3>[%s]: %s fail\n", "init", what);
		return -EFAULT;
	}
	printk("<6>[%s]: %s ok\n", "init", what);
	return 0;
}

static int register_hook(struct nf_hook_ops *ops, const char *fail_line)
{
	if (nf_register_hook(ops) < 0) {
		printk(fail_line, "init");
		return -EFAULT;
	}
	return 0;
}

int init_module(void)
{
	int ret;

	if (tblock_init() != 0) {
		printk("<3>[%s]: tblock_init fail\n", "init");
		return -EFAULT;
	}
	if (unblock_init() != 0) {
		printk("<3>[%s]: unblock_init fail\n", "init");
		return -EFAULT;
	}
	if ((ret = table_init(cbt_tcp_init, "tcp_init")) ||
	    (ret = table_init(dns_init, "dns_init")) ||
	    (ret = table_init(pct_init, "pct_init")) ||
	    (ret = table_init(pct6_init, "pct6_init")) ||
	    (ret = table_init(ssl_init, "ssl_init")) ||
	    (ret = table_init(ssl6_init, "ssl6_init")))
		return ret;

	if ((ret = register_hook(&hook_ops, "<3>[%s]: nf_register_hook fail\n")) ||
	    (ret = register_hook(&hook_ops6, "<3>[%s]: nf_register_hook(hook_ops6) fail\n")) ||
	    (ret = register_hook(&dns_hook_ops, "<3>[%s]: nf_register_hook(dns_hook_ops) fail\n")) ||
	    (ret = register_hook(&dns6_hook_ops, "<3>[%s]: nf_register_hook(dns6_hook_ops) fail\n")))
		return ret;

	if (create_proc(PROC_WP))
		return -ENOMEM;
	if (create_proc(PROC_PC))
		return -ENOMEM;

	// The load succeeds without a channel; nlink_init logs its own failure.
	nlink_init(receive_from_user);
	return 0;
}

void cleanup_module(void)
{
	nlink_fini();
	remove_proc(PROC_PC);
	remove_proc(PROC_WP);
	nf_unregister_hook(&dns_hook_ops);
	nf_unregister_hook(&dns6_hook_ops);
	nf_unregister_hook(&hook_ops);
	nf_unregister_hook(&hook_ops6);
	ssl_fini();
	pct_fini();
	ssl6_fini();
	pct6_fini();
	dns_fini();
	cbt_tcp_fini();
	// The on-demand hooks go last, after the tables they read.
	wp_unhook();
	pcg_unhook();
	unblock_fini();
	tblock_fini();
}
