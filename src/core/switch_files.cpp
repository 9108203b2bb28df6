// The switch files: writing '1' registers a service's pair of hooks and
// sets its flag, '0' unregisters them. A failed registration is logged and
// not undone.
#include "core/switch_files.h"

#include "core/hook_registry.h"
#include "linux/errno.h"
#include "linux/kernel.h"
#include "linux/uaccess.h"

static void wp_hook(void)
{
	if (wp_enabled) {
		printk("<4>[%s]: hook already registered\n", "wp_hook");
		return;
	}
	if (nf_register_hook(&pct_hook_ops) < 0) {
		printk("<3>[%s]: nf_register_hook fail\n", "wp_hook");
		return;
	}
	if (nf_register_hook(&pct6_hook_ops) < 0) {
		printk("<3>[%s]: nf_register_hook6 fail\n", "wp_hook");
		return;
	}
	wp_enabled = 1;
	printk("<6>[%s]: Wireless warning page => Enable\n", "wp_hook");
}

static void pcg_hook(void)
{
	if (pc_enabled) {
		printk("<4>[%s]: hook already registered\n", "pcg_hook");
		return;
	}
	if (nf_register_hook(&https_hook_ops) < 0) {
		printk("<3>[%s]: nf_register_hook fail\n", "pcg_hook");
		return;
	}
	if (nf_register_hook(&https6_hook_ops) < 0) {
		printk("<3>[%s]: nf_register_hook fail\n", "pcg_hook");
		return;
	}
	pc_enabled = 1;
	printk("<6>[%s]: Parental Control => Enable\n", "pcg_hook");
}

int wp_unhook(void)
{
	if (wp_enabled == 1) {
		nf_unregister_hook(&pct_hook_ops);
		nf_unregister_hook(&pct6_hook_ops);
		wp_enabled = 0;
		printk("<6>[%s]: exit netfiler hook on demand\n", "wp_unhook");
		return 0;
	}
	printk("<4>[%s]: hook already unregistered\n", "wp_unhook");
	return 0;
}

int pcg_unhook(void)
{
	if (pc_enabled == 1) {
		nf_unregister_hook(&https_hook_ops);
		nf_unregister_hook(&https6_hook_ops);
		pc_enabled = 0;
		printk("<6>[%s]: Parental Control => Disable\n", "pcg_unhook");
		return 0;
	}
	printk("<4>[%s]: hook already unregistered\n", "pcg_unhook");
	return 0;
}

struct switch_file {
	int service; // PROC_WP or PROC_PC
	const char *tag;
	const char *enable_line;
	const char *disable_line;
};

static const struct switch_file wp_switch = {
	PROC_WP,
	"wp_proc_write",
	"<7>[%s]: --- Enable wireless warning page ---\n",
	"<7>[%s]: --- Disable wireless warning page ---\n",
};

static const struct switch_file pc_switch = {
	PROC_PC,
	"pc_proc_write",
	"<7>[%s]: --- Enable PCG ---\n",
	"<7>[%s]: --- Disable PCG ---\n",
};

static void switch_on(const struct switch_file *sw)
{
	if (sw->service == PROC_WP)
		wp_hook();
	else
		pcg_hook();
}

static void switch_off(const struct switch_file *sw)
{
	if (sw->service == PROC_WP)
		wp_unhook();
	else
		pcg_unhook();
}

// Writes of three bytes or more are accepted and ignored; only the first
// byte of a shorter write counts, the second (a newline, a NUL, anything)
// never changes what the write does, so a NUL cannot change a command here:
// a NUL first byte is the empty command and only logged.
static int switch_write(const struct switch_file *sw, const char __user *buffer, unsigned long count)
{
	char buf[2] = { 0, 0 };

	if (count >= 3)
		return count;
	if (!buffer)
		return count;
	if (copy_from_user(buf, buffer, count))
		return -EFAULT;
	buf[1] = 0;

	switch (buf[0]) {
	case '0':
		printk(sw->disable_line, sw->tag);
		switch_off(sw);
		break;
	case '1':
		printk(sw->enable_line, sw->tag);
		switch_on(sw);
		break;
	default:
		// plain char is signed on the router as here: bytes above 0x7f print sign-extended
		printk("<7>[%s]: --- string=0x%x ---\n", sw->tag, buf[0]);
		break;
	}
	return count;
}

int wp_proc_write(struct file *, const char __user *buffer, unsigned long count, void *)
{
	return switch_write(&wp_switch, buffer, count);
}

int pc_proc_write(struct file *, const char __user *buffer, unsigned long count, void *)
{
	return switch_write(&pc_switch, buffer, count);
}

int create_proc(int proc_which)
{
	const char *name;
	write_proc_t *write;

	if (proc_which & PROC_WP) {
		name = "wl_warning_page";
		write = wp_proc_write;
	} else if (proc_which & PROC_PC) {
		name = "pcg_proc";
		write = pc_proc_write;
	} else {
		return 0;
	}

	struct proc_dir_entry *entry = create_proc_entry(name, 0644, NULL);
	if (!entry) {
		printk("<3>[%s]: create proc entry failed!\n", "create_proc");
		return -ENOMEM;
	}
	entry->read_proc = NULL;
	entry->write_proc = write;
	return 0;
}

void remove_proc(int proc_which)
{
	if (proc_which & PROC_WP) {
		remove_proc_entry("wl_warning_page", NULL);
		return;
	}
	if (proc_which & PROC_PC)
		remove_proc_entry("pcg_proc", NULL);
}
