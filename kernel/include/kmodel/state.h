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
