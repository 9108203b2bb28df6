#pragma once
// The rating requests of the flow hooks: a flow carries no URL or host of
// its own, so it is rated by the DNS name it was resolved under.
#include "core/rating.h"

// A request of `service` for the name: url as given, host cut to 255
// characters. Allocated with GFP_ATOMIC and zeroed, so that fields a
// service leaves unset carry no kernel memory. NULL when memory is short.
struct rating_request *flow_request_alloc(u32 service, const char *url, const char *host);
// Hands the request to the daemon (the result is of no use to a flow: a
// lost request is cured by a later packet or by the record's time-out)
// and frees it.
void flow_request_send(struct rating_request *req);
