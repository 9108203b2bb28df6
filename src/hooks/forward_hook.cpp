// Hooks for HTTP connections of IPv4 clients.
// Not filtering yet: every packet is accepted.
#include "hooks/hooks.h"

unsigned int forward_hook(unsigned int, struct sk_buff *, const struct net_device *,
			  const struct net_device *, int (*)(struct sk_buff *))
{
	return NF_ACCEPT;
}
