#pragma once
// Reset hooks of the model's parts, called by kmodel_reset().
void kmodel_printk_reset(void);
void kmodel_slab_reset(void);
void kmodel_time_reset(void);
void kmodel_random_reset(void);
void kmodel_bh_reset(void);
void kmodel_uaccess_reset(void);
void kmodel_procfs_reset(void);
void kmodel_netfilter_reset(void);
void kmodel_skb_reset(void);
void kmodel_netlink_reset(void);
void kmodel_conntrack_reset(void);
void kmodel_route_reset(void);
void kmodel_neigh_reset(void);
// Frees the buffers queued on unresolved neighbours (before the buffers
// themselves are reset).
void kmodel_neigh_purge_queues(void);
// Frees every live buffer outright (kmodel_free_all).
void kmodel_skb_free_all(void);
// What kmodel_slab_reset and kmodel_skb_reset forget, added to the totals.
void kmodel_left_behind_add(long blocks, size_t bytes, long buffers);
void kmodel_netdev_reset(void);
void kmodel_ratelimit_reset(void);
