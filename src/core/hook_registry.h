#pragma once
// The module's eight netfilter registrations and the two service flags.
#include "linux/netfilter.h"
#include "linux/types.h"

// Always registered while the module is loaded.
extern struct nf_hook_ops hook_ops;     // forward_hook, IPv4 FORWARD
extern struct nf_hook_ops hook_ops6;    // forward_hook6, IPv6 FORWARD
extern struct nf_hook_ops dns_hook_ops; // dns_hook, IPv4 PRE_ROUTING
extern struct nf_hook_ops dns6_hook_ops;

// Registered by the switch files.
extern struct nf_hook_ops pct_hook_ops; // WP pair
extern struct nf_hook_ops pct6_hook_ops;
extern struct nf_hook_ops https_hook_ops; // PC pair
extern struct nf_hook_ops https6_hook_ops;

// 1 while the service's pair is registered. Plain words, read without a lock.
extern s32 wp_enabled;
extern s32 pc_enabled;
