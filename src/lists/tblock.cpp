// Time-block list. Not built yet: no device is listed.
#include "lists/tblock.h"

int tblock_init(void) { return 0; }
void tblock_fini(void) {}
