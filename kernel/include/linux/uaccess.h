#pragma once
// User memory. A user pointer is valid only inside a region the host has
// mapped (kmodel_user_map); anything else is a bad address.
#include "linux/types.h"

#define VERIFY_READ 0
#define VERIFY_WRITE 1

int access_ok(int type, const void __user *addr, unsigned long size);
// Returns the number of bytes that could not be copied; those are zeroed.
unsigned long copy_from_user(void *to, const void __user *from, unsigned long n);
unsigned long copy_to_user(void __user *to, const void *from, unsigned long n);
