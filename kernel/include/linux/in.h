#pragma once
// IP protocol numbers and the IPv4 address type. linux/types.h already
// brings in the C library's <netinet/in.h> (for the byte-order helpers),
// whose definitions have the kernel's values and layout; they are used
// as they are.
#include <netinet/in.h>
#include "linux/types.h"
