// The hook registry: eight registrations in module data, in table order.
// The HTTP hooks run first at FORWARD, then the non-HTTP flow hooks, then
// the HTTPS hooks; the DNS hooks run first at PRE_ROUTING. No registration
// takes a reference on the module (owner NULL).
#include "core/hook_registry.h"

#include "hooks/hooks.h"

s32 wp_enabled;
s32 pc_enabled;

struct nf_hook_ops pct_hook_ops = { {}, pct_forward_hook, NULL, PF_INET, NF_INET_FORWARD, INT_MIN + 1 };
struct nf_hook_ops pct6_hook_ops = { {}, pct_forward_hook6, NULL, PF_INET6, NF_INET_FORWARD, INT_MIN + 1 };
struct nf_hook_ops https_hook_ops = { {}, https_forward_hook, NULL, PF_INET, NF_INET_FORWARD, INT_MIN + 2 };
struct nf_hook_ops https6_hook_ops = { {}, https6_forward_hook, NULL, PF_INET6, NF_INET_FORWARD, INT_MIN + 2 };
struct nf_hook_ops hook_ops = { {}, forward_hook, NULL, PF_INET, NF_INET_FORWARD, INT_MIN };
struct nf_hook_ops hook_ops6 = { {}, forward_hook6, NULL, PF_INET6, NF_INET_FORWARD, INT_MIN };
struct nf_hook_ops dns_hook_ops = { {}, dns_hook, NULL, PF_INET, NF_INET_PRE_ROUTING, INT_MIN };
struct nf_hook_ops dns6_hook_ops = { {}, dns6_hook, NULL, PF_INET6, NF_INET_PRE_ROUTING, INT_MIN };
