// Hooks for DNS queries and answers crossing the router.
// Not filtering yet: every packet is accepted.
#include "hooks/hooks.h"

unsigned int dns_hook(unsigned int, struct sk_buff *, const struct net_device *,
			  const struct net_device *, int (*)(struct sk_buff *))
{
	return NF_ACCEPT;
}

unsigned int dns6_hook(unsigned int, struct sk_buff *, const struct net_device *,
			  const struct net_device *, int (*)(struct sk_buff *))
{
	return NF_ACCEPT;
}
