// Non-HTTP flow tables. Not built yet: nothing is tracked.
#include "track/pct_table.h"

int pct_init(void) { return 0; }
void pct_fini(void) {}
int pct6_init(void) { return 0; }
void pct6_fini(void) {}
