#pragma once
// IPv4 routes.
#include "linux/in.h"
#include "net/dst.h"
#include "net/flow.h"

struct net;

struct rtable {
	struct dst_entry dst;
	struct flowi fl;
	int rt_genid;
	unsigned rt_flags;
	u16 rt_type;
	__be32 rt_dst;
	__be32 rt_src;
	int rt_iif;
	__be32 rt_gateway;
	__be32 rt_spec_dst;
};

// Looks the flow up; on success *rp holds a counted reference.
// 0 or a negative error (-ENETUNREACH when nothing matches).
int ip_route_output_key(struct net *net, struct rtable **rp, struct flowi *flp);

static inline void ip_rt_put(struct rtable *rt)
{
	if (rt)
		dst_release(&rt->dst);
}

static inline struct rtable *skb_rtable(const struct sk_buff *skb)
{
	return (struct rtable *)skb_dst(skb);
}
