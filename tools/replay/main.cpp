// dnshook-replay: a capture through the filter on the simulated router,
// packet by packet, with a rating policy. See --help.
#include "tools/replay/run.h"

int main(int argc, char **argv)
{
	return replay::replay_main(std::vector<std::string>(argv + 1, argv + argc), stdout, stderr);
}
