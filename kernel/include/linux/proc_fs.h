#pragma once
// The 2.6 procfs interface with read_proc/write_proc callbacks.
#include "linux/types.h"

struct file;
struct proc_dir_entry;

typedef int(read_proc_t)(char *page, char **start, off_t off, int count, int *eof, void *data);
typedef int(write_proc_t)(struct file *file, const char __user *buffer, unsigned long count, void *data);

struct proc_dir_entry {
	const char *name;
	mode_t mode;
	struct proc_dir_entry *parent;
	read_proc_t *read_proc;
	write_proc_t *write_proc;
	void *data;
};

struct proc_dir_entry *create_proc_entry(const char *name, mode_t mode, struct proc_dir_entry *parent);
void remove_proc_entry(const char *name, struct proc_dir_entry *parent);
