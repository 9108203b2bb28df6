// Hooks for HTTPS and other flows of the clients (PC).
// Not filtering yet: every packet is accepted.
#include "hooks/hooks.h"

unsigned int https_forward_hook(unsigned int, struct sk_buff *, const struct net_device *,
			  const struct net_device *, int (*)(struct sk_buff *))
{
	return NF_ACCEPT;
}

unsigned int https6_forward_hook(unsigned int, struct sk_buff *, const struct net_device *,
			  const struct net_device *, int (*)(struct sk_buff *))
{
	return NF_ACCEPT;
}
