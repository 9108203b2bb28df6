// kmodel_reset: every part of the model back to its boot state, and the
// same release at exit so that a leak checker sees only the filter's own.
#include <stdlib.h>

#include "kmodel/host.h"
#include "kmodel/state.h"
#include "linux/module.h"

struct module __this_module = {"dnshook"};

namespace {
kmodel_leftovers g_left;
bool g_exit_registered;

void release_at_exit(void) { kmodel_reset(); }
}

void kmodel_left_behind_add(long blocks, size_t bytes, long buffers)
{
	g_left.blocks += blocks;
	g_left.bytes += bytes;
	g_left.buffers += buffers;
}

kmodel_leftovers kmodel_left_behind(void) { return g_left; }

void kmodel_reset(void)
{
	// Registered after the model's containers were built, so it runs
	// before they are destroyed.
	if (!g_exit_registered) {
		g_exit_registered = true;
		atexit(release_at_exit);
	}
	kmodel_printk_reset();
	kmodel_slab_reset();
	kmodel_time_reset();
	kmodel_random_reset();
	kmodel_bh_reset();
	kmodel_uaccess_reset();
	kmodel_procfs_reset();
	kmodel_netfilter_reset();
	// Buffers first: they point at routes, entries and devices. Those the
	// model queued are its own and freed; the rest are the filter's.
	kmodel_neigh_purge_queues();
	kmodel_skb_reset();
	kmodel_netlink_reset();
	kmodel_conntrack_reset();
	kmodel_route_reset();
	kmodel_neigh_reset();
	kmodel_netdev_reset();
	kmodel_ratelimit_reset();
}
