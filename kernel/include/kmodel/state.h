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
void kmodel_netdev_reset(void);
void kmodel_ratelimit_reset(void);
