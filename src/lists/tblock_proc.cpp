// The control file "tblock_proc". Keywords match by prefix, so "adder" adds
// and "flushing" flushes; a command's MAC follows the keyword and optional
// blanks, colons and tabs.
#include "lists/tblock_proc.h"

#include "linux/errno.h"
#include "linux/kernel.h"
#include "linux/string.h"
#include "linux/uaccess.h"
#include "lists/command.h"
#include "lists/tblock.h"

#define TBLK_CMD_MAX 300

static const char *skip_separators(const char *p)
{
	while (*p == ' ' || *p == ':' || *p == '\t')
		p++;
	return p;
}

static int tblk_cmd_del(const char *arg)
{
	u8 mac[ETH_ALEN];

	printk("<7>[%s]: delete tblk entry...\n", "tblk_proc_write");
	if (get_hwaddr(arg, mac) == -1)
		return -EFAULT;
	tblk_delete_by_mac(mac);
	return 0;
}

static int tblk_cmd_add(const char *arg)
{
	u8 mac[ETH_ALEN];

	printk("<7>[%s]: add tblk entry...\n", "tblk_proc_write");
	if (get_hwaddr(arg, mac) == -1)
		return -EFAULT;
	// The look-up's reference is kept: a listed device stays pinned.
	if (tblk_get(mac)) {
		printk("<7>[%s]: %d: alread exist [%02x:%02x:%02x:%02x:%02x:%02x]\n", "tblk_proc_write", 129,
		       mac[0], mac[1], mac[2], mac[3], mac[4], mac[5]);
		return 0;
	}
	tblk_insert(mac);
	return 0;
}

int tblk_proc_write(struct file *file, const char __user *buffer, unsigned long count, void *data)
{
	char buf[TBLK_CMD_MAX];
	int ret = 0;

	(void)file;
	(void)data;
	memset(buf, 0, sizeof(buf));
	// At most 299 bytes, so the text always ends inside the buffer.
	if (count >= TBLK_CMD_MAX)
		return -EFAULT;
	if (copy_from_user(buf, buffer, count))
		return -EFAULT;
	printk("<7>[%s]: tblock_string=%s\n\n", "tblk_proc_write", buf);
	if (command_cut_short(buf, count))
		return -EINVAL;

	if (!strncmp(buf, "del", 3))
		ret = tblk_cmd_del(skip_separators(buf + 3));
	else if (!strncmp(buf, "add", 3))
		ret = tblk_cmd_add(skip_separators(buf + 3));
	else if (!strncmp(buf, "flush", 5)) {
		printk("<7>[%s]: flush all tblk entries...\n", "tblk_proc_write");
		tblk_flush();
	}
	return ret ? ret : (int)count;
}

int tblk_create_proc_entry(void)
{
	struct proc_dir_entry *e = create_proc_entry("tblock_proc", 0644, NULL);

	if (!e) {
		printk("<7>[%s]: create tblock proc entry failed!\n\n", "tblk_create_proc_entry");
		return -ENOMEM;
	}
	e->read_proc = NULL;
	e->write_proc = tblk_proc_write;
	return 0;
}

void tblk_remove_proc_entry(void)
{
	remove_proc_entry("tblock_proc", NULL);
}
