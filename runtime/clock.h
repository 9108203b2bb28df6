#pragma once
// The filter's tick counter from CLOCK_MONOTONIC at a chosen rate. It
// starts 300 s before the 32-bit wrap, as the kernel's does at boot.
#include <cstdint>

namespace dnshookd {

class Clock {
public:
	explicit Clock(unsigned hz);
	// Sets the model's jiffies to now; returns the value.
	uint32_t tick(void);
	unsigned hz() const { return hz_; }

private:
	unsigned hz_;
	uint64_t start_ns_;
};

} // namespace dnshookd
