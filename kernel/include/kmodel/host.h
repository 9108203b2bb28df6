#pragma once
// The host's side of the kernel model: fill the kernel's state, drive it,
// and read what the filter produced. Only hosts (sim/, runtime/, tests,
// tools) include this; the filter never does.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "linux/types.h"

struct sk_buff;
struct net_device;
struct nf_hook_ops;

// Puts every part of the model back into its boot state: empty log, no
// live allocations, no hooks, no proc entries, jiffies at INITIAL_JIFFIES.
// What the model owns (devices, routes, neighbours, conntrack entries,
// sockets, queued and freed buffers) is released, here and at exit. Memory
// still held by the filter (kmalloc blocks, buffers) is counted in
// kmodel_left_behind() and forgotten, not freed: a leak checker then judges
// it, and only what the filter keeps on purpose may be suppressed.
void kmodel_reset(void);

struct kmodel_leftovers {
	long blocks;     // kmalloc blocks live at a reset
	size_t bytes;
	long buffers;    // socket buffers live at a reset
};
// Totals over every reset since the process started.
kmodel_leftovers kmodel_left_behind(void);

// ---- printk ----
const std::vector<std::string> &kmodel_log(void);
void kmodel_log_clear(void);
// Also write each line to stdout as it is logged (the demo uses this).
void kmodel_log_echo(bool on);

// ---- time ----
void kmodel_set_jiffies(u32 now);
void kmodel_advance_jiffies(u32 ticks);

// ---- memory ----
struct kmodel_alloc_stats {
	long live_blocks;   // kmalloc'ed and not yet kfree'd
	long total_allocs;  // successful allocations since reset
	long failed_allocs; // allocations refused by injection
	size_t live_bytes;
};
kmodel_alloc_stats kmodel_alloc_stats_get(void);
// The n-th kmalloc from now (1 = the next one) returns NULL. 0 disarms.
void kmodel_fail_alloc_nth(long n);
// Every kmalloc with exactly these flags fails while set; 0 disarms.
void kmodel_fail_alloc_flags(gfp_t flags);
bool kmodel_is_live(const void *p);
// Frees every block and every socket buffer still live. For hosts that
// load and unload the filter many times in one process (fuzzers): after an
// unload, what the filter leaks on purpose would otherwise pile up. The
// filter must not be loaded.
void kmodel_free_all(void);

// ---- random ----
void kmodel_seed_random(uint64_t seed);

// ---- bottom halves ----
int kmodel_bh_depth(void);
long kmodel_bh_sections(void); // local_bh_disable calls since reset

// ---- user memory ----
// Makes [p, p+len) readable and writable as user memory until unmapped.
void kmodel_user_map(const void *p, size_t len);
void kmodel_user_unmap(const void *p);

// ---- procfs ----
bool kmodel_proc_exists(const char *name);
const struct proc_dir_entry *kmodel_proc_entry(const char *name);
// Writes count bytes at buf into /proc/<name> as a user process would: the
// buffer is mapped as user memory for the call unless bad_address is set,
// in which case the handler sees an address no process owns.
// Returns the handler's result; -ENOENT without the file, -EIO without a
// write handler.
// The n-th create_proc_entry from now returns NULL. 0 disarms.
void kmodel_fail_proc_create_nth(long n);
int kmodel_proc_write(const char *name, const void *buf, size_t count, bool bad_address = false);
int kmodel_proc_write_str(const char *name, const std::string &text);

// ---- netfilter ----
// Registered hooks of one family and hook point, in traversal order.
std::vector<const nf_hook_ops *> kmodel_nf_hooks(int pf, unsigned int hooknum);
bool kmodel_nf_registered(const nf_hook_ops *ops);
// The n-th nf_register_hook from now fails with err (negative).
void kmodel_fail_nf_register_nth(long n, int err);
// Runs the hooks of (pf, hooknum) in priority order until one returns a
// verdict other than NF_ACCEPT (NF_STOP ends the walk as an accept).
unsigned int kmodel_nf_hook(int pf, unsigned int hooknum, struct sk_buff *skb,
			    const struct net_device *in, const struct net_device *out);
// The registration whose verdict ended the last walk; NULL when every
// hook accepted.
const nf_hook_ops *kmodel_nf_last_decider(void);
