#pragma once
// kmalloc/kfree through the model's accounting allocator (see kmodel/host.h).
#include "linux/types.h"

#define GFP_ATOMIC ((gfp_t)0x20u)
#define GFP_KERNEL ((gfp_t)0xd0u)

void *kmalloc(size_t size, gfp_t flags);
void *kzalloc(size_t size, gfp_t flags);
void kfree(const void *p);
