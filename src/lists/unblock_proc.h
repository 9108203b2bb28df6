#pragma once
// The control file "unblock_proc": "+|MAC[|URL]" grants an exemption,
// "-|MAC" removes a device's exemptions, "=..." commands flush.
#include "linux/proc_fs.h"
#include "linux/types.h"

int tm_proc_write(struct file *file, const char __user *buffer, unsigned long count, void *data);
int tm_create_proc_entry(void);
void tm_remove_proc_entry(void);
