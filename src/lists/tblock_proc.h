#pragma once
// The control file "tblock_proc": one "add", "del" or "flush" command per write.
#include "linux/proc_fs.h"
#include "linux/types.h"

int tblk_proc_write(struct file *file, const char __user *buffer, unsigned long count, void *data);
int tblk_create_proc_entry(void);
void tblk_remove_proc_entry(void);
