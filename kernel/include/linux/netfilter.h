#pragma once
// Netfilter hook registration and verdicts.
#include "linux/list.h"
#include "linux/types.h"

#define NF_DROP 0
#define NF_ACCEPT 1
#define NF_STOLEN 2
#define NF_QUEUE 3
#define NF_REPEAT 4
#define NF_STOP 5

enum nf_inet_hooks {
	NF_INET_PRE_ROUTING,
	NF_INET_LOCAL_IN,
	NF_INET_FORWARD,
	NF_INET_LOCAL_OUT,
	NF_INET_POST_ROUTING,
	NF_INET_NUMHOOKS
};

#define PF_UNSPEC 0
#define PF_INET 2
#define PF_INET6 10
#define NFPROTO_IPV4 2
#define NFPROTO_IPV6 10
#define NFPROTO_NUMPROTO 13

struct sk_buff;
struct net_device;
struct module;

typedef unsigned int nf_hookfn(unsigned int hooknum, struct sk_buff *skb,
			       const struct net_device *in, const struct net_device *out,
			       int (*okfn)(struct sk_buff *));

struct nf_hook_ops {
	struct list_head list;
	nf_hookfn *hook;
	struct module *owner;
	u_int8_t pf;
	unsigned int hooknum;
	int priority;
};

int nf_register_hook(struct nf_hook_ops *reg);
void nf_unregister_hook(struct nf_hook_ops *reg);
