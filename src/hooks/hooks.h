#pragma once
// The netfilter hook functions of the filter.
#include "linux/netfilter.h"

// HTTP, at FORWARD (priority INT_MIN).
nf_hookfn forward_hook;
nf_hookfn forward_hook6;
// DNS snooping, at PRE_ROUTING (priority INT_MIN).
nf_hookfn dns_hook;
nf_hookfn dns6_hook;
// Non-HTTP flows for WP, at FORWARD (priority INT_MIN + 1).
nf_hookfn pct_forward_hook;
nf_hookfn pct_forward_hook6;
// HTTPS flows for PC, at FORWARD (priority INT_MIN + 2).
nf_hookfn https_forward_hook;
nf_hookfn https6_forward_hook;
