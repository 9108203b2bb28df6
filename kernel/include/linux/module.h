#pragma once
#include "linux/types.h"

struct module {
	const char *name;
};

extern struct module __this_module;
#define THIS_MODULE (&__this_module)
#define MODULE_LICENSE(x)
#define MODULE_AUTHOR(x)
#define MODULE_DESCRIPTION(x)

// The module's entry points, called by the host as insmod/rmmod would.
int init_module(void);
void cleanup_module(void);
