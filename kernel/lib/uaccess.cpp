// User memory: only regions the host mapped are valid user addresses.
#include <cstring>
#include <map>

#include "kmodel/host.h"
#include "kmodel/state.h"
#include "linux/kernel.h"
#include "linux/uaccess.h"

namespace {
std::map<uintptr_t, size_t> g_regions; // start -> length

// Bytes readable from addr onwards inside one mapped region (0 if none).
size_t user_span(const void *addr)
{
	uintptr_t a = (uintptr_t)addr;
	auto it = g_regions.upper_bound(a);
	if (it == g_regions.begin())
		return 0;
	--it;
	if (a >= it->first + it->second)
		return 0;
	return it->first + it->second - a;
}

unsigned long user_copy(void *to, const void *from, unsigned long n, const void *user)
{
	size_t ok = user_span(user);
	size_t done = n < ok ? n : ok;
	if (done)
		memcpy(to, from, done);
	return n - done;
}
}

int access_ok(int, const void __user *addr, unsigned long size)
{
	return size == 0 || user_span(addr) >= size;
}

unsigned long copy_from_user(void *to, const void __user *from, unsigned long n)
{
	unsigned long left = user_copy(to, from, n, from);
	if (left)
		memset((char *)to + (n - left), 0, left);
	return left;
}

unsigned long copy_to_user(void __user *to, const void *from, unsigned long n)
{
	return user_copy(to, from, n, to);
}

void kmodel_user_map(const void *p, size_t len)
{
	BUG_ON(!p);
	g_regions[(uintptr_t)p] = len;
}

void kmodel_user_unmap(const void *p) { g_regions.erase((uintptr_t)p); }
void kmodel_uaccess_reset(void) { g_regions.clear(); }
