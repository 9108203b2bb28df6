// HTTP connection tables. Not built yet: nothing is tracked.
#include "track/tcp_table.h"

int cbt_tcp_init(void) { return 0; }
void cbt_tcp_fini(void) {}
