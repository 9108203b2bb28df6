// The demo: the filter on the simulated router, as an operator would see
// it. Kernel log lines are printed as they are logged, right after the
// command that caused them.
#include "tools/demo.h"

#include <cstdio>

#include "kmodel/host.h"

void demo_command(const std::string &command)
{
	printf("$ %s\n", command.c_str());
	fflush(stdout);
}

void demo_result(int result)
{
	printf("  = %d\n", result);
	fflush(stdout);
}

int main()
{
	printf("== dnshook on the simulated router ==\n");
	demo_switches();
	demo_http();
	demo_flows();
	return 0;
}
