// libFuzzer target for the netlink input callback, rcv_from_sk.
//
// Input: one byte choosing how much of the buffer is linear (x 4 bytes),
// then the buffer the daemon writes. The handler reads every field of the
// reply it is given and checks that the payload it sees is the buffer's
// (zeros past its end), that the count is the buffer's length less the
// header, and that a payload left inside the buffer has a whole reply
// before the buffer's tail. Every buffer is freed by the end of the input.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "core/channel.h"
#include "core/rating.h"
#include "kmodel/host.h"
#include "kmodel/net.h"
#include "linux/skbuff.h"

namespace {

const struct sk_buff *g_skb;
std::vector<uint8_t> g_bytes;
int g_calls;

int handler(void *data, u16 type, int len)
{
	const struct rating_reply *r = (const struct rating_reply *)data;
	const uint8_t *p = (const uint8_t *)data;

	g_calls++;
	if (len != (int)g_bytes.size() - 16 || type != (g_bytes[4] | g_bytes[5] << 8))
		abort();
	if (p >= g_skb->head && p < g_skb->end && p + sizeof(*r) > g_skb->tail)
		abort();
	for (size_t i = 0; i < sizeof(*r); i++) {
		uint8_t want = 16 + i < g_bytes.size() ? g_bytes[16 + i] : 0;
		if (p[i] != want)
			abort();
	}
	volatile uint32_t sink = r->kind + r->service + r->family + r->src_addr.ip + r->dst_addr.ip +
				 r->src_port + r->dst_port + r->verdict;
	sink = sink + (uint32_t)strnlen(r->redirect_url, sizeof(r->redirect_url));
	(void)sink;
	return 0;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	if (size < 1)
		return 0;
	size_t linear = (size_t)data[0] * 4;
	g_bytes.assign(data + 1, data + size);

	kmodel_reset();
	if (nlink_init(handler) != 0)
		abort();
	struct sk_buff *skb = kmodel_skb_build(g_bytes.data(), g_bytes.size(), linear, 0);
	g_skb = skb;
	g_calls = 0;
	rcv_from_sk(skb);
	kfree_skb(skb);
	nlink_fini();

	// Called exactly when the header is whole and its length fits the buffer.
	bool whole = false;
	if (g_bytes.size() >= 16) {
		uint32_t nlmsg_len;
		memcpy(&nlmsg_len, g_bytes.data(), 4);
		whole = nlmsg_len >= 16 && nlmsg_len <= g_bytes.size();
	}
	if (g_calls != (whole ? 1 : 0) || kmodel_skb_stats_get().live != 0)
		abort();
	return 0;
}
