// Demo: a name lookup followed by a non-HTTP flow, for each service.
#include <cstdio>

#include "tools/demo.h"

void demo_flows(void)
{
	printf("\n-- DNS snooping and flow filtering: not shown yet --\n");
}
