#pragma once
// The two service switch files, "wl_warning_page" (WP) and "pcg_proc" (PC).
#include "linux/proc_fs.h"

#define PROC_WP 1 // proc_which bit of "wl_warning_page"
#define PROC_PC 2 // proc_which bit of "pcg_proc"

int create_proc(int proc_which);
void remove_proc(int proc_which);

int wp_proc_write(struct file *file, const char __user *buffer, unsigned long count, void *data);
int pc_proc_write(struct file *file, const char __user *buffer, unsigned long count, void *data);

// Switch a service off: unregister its pair if the flag says it is registered.
int wp_unhook(void);
int pcg_unhook(void);
