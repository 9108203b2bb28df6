// Unblock list. Not built yet: no device is exempted.
#include "lists/unblock.h"

int unblock_init(void) { return 0; }
void unblock_fini(void) {}
