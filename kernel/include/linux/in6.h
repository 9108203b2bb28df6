#pragma once
// The IPv6 address (s6_addr, s6_addr16, s6_addr32 views) and the IPv6
// next-header values. As with linux/in.h, the C library's definitions,
// identical in layout and value, are the ones in use.
#include <netinet/in.h>
#include "linux/types.h"

static_assert(sizeof(struct in6_addr) == 16, "in6_addr is 16 bytes");
