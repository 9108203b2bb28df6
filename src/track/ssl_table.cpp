// HTTPS flow tables. Not built yet: nothing is tracked.
#include "track/ssl_table.h"

int ssl_init(void) { return 0; }
void ssl_fini(void) {}
int ssl6_init(void) { return 0; }
void ssl6_fini(void) {}
