// net_ratelimit: the kernel's shared rate limit for network messages.
#include "kmodel/net.h"
#include "kmodel/state.h"
#include "linux/jiffies.h"
#include "linux/kernel.h"
#include "linux/net.h"

namespace {

struct ratelimit_state {
	u32 interval;
	u32 burst;
	u32 printed;
	u32 missed;
	u32 begin;
};

ratelimit_state g_rs = {5 * HZ, 10, 0, 0, 0};

} // namespace

int net_ratelimit(void)
{
	ratelimit_state *rs = &g_rs;
	int ret;

	if (!rs->interval)
		return 1;
	if (!rs->begin)
		rs->begin = jiffies;
	if (time_after(jiffies, rs->begin + rs->interval)) {
		if (rs->missed)
			printk(KERN_WARNING "%s: %d callbacks suppressed\n", "net_ratelimit", (int)rs->missed);
		rs->begin = 0;
		rs->printed = 0;
		rs->missed = 0;
	}
	if (rs->burst && rs->burst > rs->printed) {
		rs->printed++;
		ret = 1;
	} else {
		rs->missed++;
		ret = 0;
	}
	return ret;
}

void kmodel_net_ratelimit_set(u32 interval, u32 burst)
{
	g_rs = ratelimit_state{interval, burst, 0, 0, 0};
}

void kmodel_ratelimit_reset(void)
{
	g_rs = ratelimit_state{5 * HZ, 10, 0, 0, 0};
}
