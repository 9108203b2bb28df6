#pragma once
// The tick counter is 32 bits wide, as on the router; compare ticks only
// through these macros so wrap-around is handled.
#include "linux/types.h"

#define HZ 100
#define INITIAL_JIFFIES ((u32)(unsigned int)(-300 * HZ))

extern u32 jiffies;

#define time_after(a, b) ((s32)((u32)(b) - (u32)(a)) < 0)
#define time_before(a, b) time_after(b, a)
#define time_after_eq(a, b) ((s32)((u32)(a) - (u32)(b)) >= 0)
#define time_before_eq(a, b) time_after_eq(b, a)
