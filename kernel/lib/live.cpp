// The host callbacks of kmodel/live.h.
#include "kmodel/live.h"

namespace {
kmodel_route_fn g_route_fn;
kmodel_neigh_fn g_neigh_fn;
kmodel_xmit_fn g_xmit_fn;
} // namespace

void kmodel_set_route_fn(kmodel_route_fn fn) { g_route_fn = fn; }
void kmodel_set_neigh_fn(kmodel_neigh_fn fn) { g_neigh_fn = fn; }
void kmodel_set_xmit_fn(kmodel_xmit_fn fn) { g_xmit_fn = fn; }
kmodel_route_fn kmodel_route_fn_get(void) { return g_route_fn; }
kmodel_neigh_fn kmodel_neigh_fn_get(void) { return g_neigh_fn; }
kmodel_xmit_fn kmodel_xmit_fn_get(void) { return g_xmit_fn; }
