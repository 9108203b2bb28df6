#pragma once
#include <limits.h>
#include <stdarg.h>
#include <stdio.h>  // snprintf, vsnprintf
#include "linux/types.h"

#define KERN_EMERG "<0>"
#define KERN_ALERT "<1>"
#define KERN_CRIT "<2>"
#define KERN_ERR "<3>"
#define KERN_WARNING "<4>"
#define KERN_NOTICE "<5>"
#define KERN_INFO "<6>"
#define KERN_DEBUG "<7>"

#ifndef offsetof
#define offsetof(type, member) __builtin_offsetof(type, member)
#endif
#define container_of(ptr, type, member) \
	((type *)((char *)(ptr) - offsetof(type, member)))
#define ARRAY_SIZE(a) (sizeof(a) / sizeof((a)[0]))

// One call is one line of the kernel log, level prefix included.
int printk(const char *fmt, ...) __attribute__((format(printf, 1, 2)));

// The target is 32-bit: unsigned long arithmetic wraps at 2^32.
unsigned long simple_strtoul(const char *cp, char **endp, unsigned int base);

// BUG_ON stops the host: a broken invariant of the model or of its use.
void kmodel_bug(const char *file, int line, const char *what) __attribute__((noreturn));
#define BUG_ON(cond) do { if (unlikely(cond)) kmodel_bug(__FILE__, __LINE__, #cond); } while (0)
#define BUG() kmodel_bug(__FILE__, __LINE__, "BUG")
