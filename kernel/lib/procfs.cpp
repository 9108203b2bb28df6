// procfs: a flat registry of entries directly under /proc.
#include <cstring>
#include <map>
#include <memory>
#include <string>

#include "kmodel/host.h"
#include "kmodel/state.h"
#include "linux/errno.h"
#include "linux/kernel.h"
#include "linux/proc_fs.h"
#include "linux/uaccess.h"

namespace {
struct proc_node {
	std::string name;
	proc_dir_entry entry;
};
std::map<std::string, std::unique_ptr<proc_node>> g_entries;
long g_fail_nth;

// An address no process owns: procfs handlers must reject it.
const char *const kBadUserAddress = reinterpret_cast<const char *>(0x10);
}

struct proc_dir_entry *create_proc_entry(const char *name, mode_t mode, struct proc_dir_entry *parent)
{
	BUG_ON(!name);
	if (parent)
		return NULL; // only the root directory exists in the model
	if (g_fail_nth > 0 && --g_fail_nth == 0)
		return NULL;
	if (g_entries.count(name))
		return NULL; // the kernel refuses a duplicate name
	auto node = std::make_unique<proc_node>();
	node->name = name;
	node->entry = proc_dir_entry{};
	node->entry.name = node->name.c_str();
	node->entry.mode = mode;
	proc_dir_entry *e = &node->entry;
	g_entries[name] = std::move(node);
	return e;
}

void remove_proc_entry(const char *name, struct proc_dir_entry *parent)
{
	if (parent)
		return;
	auto it = g_entries.find(name);
	if (it == g_entries.end()) {
		printk("<4>remove_proc_entry: removing non-empty directory '/proc/%s', leaking at least '%s'\n", name, name);
		return;
	}
	g_entries.erase(it);
}

bool kmodel_proc_exists(const char *name) { return g_entries.count(name) != 0; }

const struct proc_dir_entry *kmodel_proc_entry(const char *name)
{
	auto it = g_entries.find(name);
	return it == g_entries.end() ? nullptr : &it->second->entry;
}

void kmodel_fail_proc_create_nth(long n) { g_fail_nth = n; }

int kmodel_proc_write(const char *name, const void *buf, size_t count, bool bad_address)
{
	auto it = g_entries.find(name);
	if (it == g_entries.end())
		return -ENOENT;
	proc_dir_entry *e = &it->second->entry;
	if (!e->write_proc)
		return -EIO;
	// A user process's buffer: a private copy, mapped for this call only,
	// so the handler cannot read beyond what was written.
	std::unique_ptr<char[]> user(new char[count ? count : 1]);
	if (count)
		memcpy(user.get(), buf, count);
	const char *addr = bad_address ? kBadUserAddress : user.get();
	if (!bad_address)
		kmodel_user_map(user.get(), count);
	int ret = e->write_proc(NULL, addr, count, e->data);
	if (!bad_address)
		kmodel_user_unmap(user.get());
	return ret;
}

int kmodel_proc_write_str(const char *name, const std::string &text)
{
	return kmodel_proc_write(name, text.data(), text.size());
}

void kmodel_procfs_reset(void)
{
	g_entries.clear();
	g_fail_nth = 0;
}
