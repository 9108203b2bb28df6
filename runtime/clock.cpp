// The filter's tick counter.
#include "runtime/clock.h"

#include <time.h>

#include "kmodel/host.h"

namespace dnshookd {

namespace {
uint64_t monotonic_ns(void)
{
	timespec ts;
	clock_gettime(CLOCK_MONOTONIC, &ts);
	return (uint64_t)ts.tv_sec * 1000000000ull + (uint64_t)ts.tv_nsec;
}
} // namespace

Clock::Clock(unsigned hz) : hz_(hz), start_ns_(monotonic_ns()) { tick(); }

uint32_t Clock::tick(void)
{
	uint64_t elapsed = monotonic_ns() - start_ns_;
	uint32_t initial = (uint32_t)(-300 * (int64_t)hz_);
	uint32_t now = initial + (uint32_t)(elapsed / 1000000ull * hz_ / 1000ull);
	kmodel_set_jiffies(now);
	return now;
}

} // namespace dnshookd
