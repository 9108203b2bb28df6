// Hooks for non-HTTP flows to resolved servers (WP).
// Not filtering yet: every packet is accepted.
#include "hooks/hooks.h"

unsigned int pct_forward_hook(unsigned int, struct sk_buff *, const struct net_device *,
			  const struct net_device *, int (*)(struct sk_buff *))
{
	return NF_ACCEPT;
}

unsigned int pct_forward_hook6(unsigned int, struct sk_buff *, const struct net_device *,
			  const struct net_device *, int (*)(struct sk_buff *))
{
	return NF_ACCEPT;
}
