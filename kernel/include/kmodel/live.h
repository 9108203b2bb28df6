#pragma once
// Optional callbacks through which a host puts a real system behind the
// model: route and neighbour look-ups answered by the host's kernel, and
// transmitted frames handed to the host's devices. With none installed
// the model keeps its own tables and captures what is sent. Installed
// callbacks survive kmodel_reset(); pass nullptr to remove one.
#include <cstdint>

#include "kmodel/net.h"

struct flowi;
struct dst_entry;
struct neigh_table;
struct net_device;
struct sk_buff;

// Answers ip_route_output_key (family AF_INET) and ip6_route_output
// (AF_INET6): a route with one reference taken for the caller, or NULL
// for no route (IPv4 then fails with -ENETUNREACH, IPv6 gets the null
// entry).
using kmodel_route_fn = struct dst_entry *(*)(int family, const struct flowi *fl);
void kmodel_set_route_fn(kmodel_route_fn fn);

// Called by neigh_lookup before it searches the table, so that the host
// can add, update or remove the entry for (tbl, key, dev) to match its
// own cache (kmodel_neigh_add / _update / _remove).
using kmodel_neigh_fn = void (*)(struct neigh_table *tbl, const void *key, struct net_device *dev);
void kmodel_set_neigh_fn(kmodel_neigh_fn fn);

// Called by dev_queue_xmit with the frame (link-layer header included)
// instead of the capture; its result is dev_queue_xmit's. The buffer is
// freed by dev_queue_xmit afterwards.
using kmodel_xmit_fn = int (*)(const struct sk_buff *skb);
void kmodel_set_xmit_fn(kmodel_xmit_fn fn);

// A route outside the model's table, for a route callback to hand out:
// device, and either a header cache to `ha`, a neighbour (a reference is
// taken) or neither. The caller owns it and frees it with kmodel_dst_free
// once kmodel_dst_refs says nobody holds it.
struct dst_entry *kmodel_dst_new(int family, struct net_device *dev, kmodel_route_out out,
				 const uint8_t *ha = nullptr, struct neighbour *neigh = nullptr);
void kmodel_dst_free(struct dst_entry *dst);

// The installed callbacks (nullptr when none), for the model's parts.
kmodel_route_fn kmodel_route_fn_get(void);
kmodel_neigh_fn kmodel_neigh_fn_get(void);
kmodel_xmit_fn kmodel_xmit_fn_get(void);
