#pragma once
// dnshook-replay from its arguments to its exit status: 0 the capture was
// replayed to its end, 1 it could not be read (or not to its end), 2 a
// bad command line or policy. Output goes to out, complaints to err.
#include <cstdio>
#include <string>
#include <vector>

namespace replay {

int replay_main(const std::vector<std::string> &args, FILE *out, FILE *err);

} // namespace replay
