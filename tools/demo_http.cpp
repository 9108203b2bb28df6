// Demo: an HTTP client with one allowed and one blocked site.
#include <cstdio>

#include "tools/demo.h"

void demo_http(void)
{
	printf("\n-- HTTP filtering: not shown yet --\n");
}
