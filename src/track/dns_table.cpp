// DNS name cache. Not built yet: nothing is cached.
#include "track/dns_table.h"

int dns_init(void) { return 0; }
void dns_fini(void) {}
