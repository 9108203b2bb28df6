// kmodel_reset: every part of the model back to its boot state.
#include "kmodel/host.h"
#include "kmodel/state.h"
#include "linux/module.h"

struct module __this_module = {"dnshook"};

void kmodel_reset(void)
{
	kmodel_printk_reset();
	kmodel_slab_reset();
	kmodel_time_reset();
	kmodel_random_reset();
	kmodel_bh_reset();
	kmodel_uaccess_reset();
	kmodel_procfs_reset();
	kmodel_netfilter_reset();
	// Buffers first: they point at routes, entries and devices.
	kmodel_skb_reset();
	kmodel_netlink_reset();
	kmodel_conntrack_reset();
	kmodel_route_reset();
	kmodel_neigh_reset();
	kmodel_netdev_reset();
	kmodel_ratelimit_reset();
}
