// libFuzzer target for the daemon's replies through the real channel: the
// loaded filter's netlink socket (rcv_from_sk) hands each buffer to the
// verdict dispatcher it registered (receive_from_user), while the tables
// hold HTTP connections with held copies and flows waiting for a verdict
// (fuzz/populate.h).
//
// Input: a mode byte (bit 0 WP, bit 1 PC), then replies of
//   [op] [verdict] [url length] [linear] [url bytes...]
// Each reply starts from one of the requests the filter sent (op & 7
// chooses), echoed as the daemon would (kind 1, service + 1) unless op
// asks for another kind (0x08) or service (0x10); verdict & 3 is PASS,
// WHITE_PASS, BLOCK or an unknown code; 0x20 fills the block-page address
// with 511 characters or, with verdict bit 2, with 524 (no NUL up to the
// reply's end); 0x40 cuts the buffer to 16 + 2 *
// linear bytes (a short or header-only message); the linear byte x 4 is
// the linear part, the rest lies in page fragments; 0x80 sends each
// connection's next client packet afterwards.
//
// After each reply: every held copy in the 200 HTTP slots is a live buffer
// and no two slots share one, the only live buffers are those copies, and
// the netlink socket is still there.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <set>

#include "core/channel.h"
#include "core/rating.h"
#include "fuzz/populate.h"
#include "kmodel/host.h"
#include "kmodel/net.h"
#include "linux/skbuff.h"
#include "track/tcp_table.h"

namespace {

void check_held_copies(void)
{
	std::set<const sk_buff *> held;
	for (struct tcp_table_block *t : {tcp_table, tcp_table6}) {
		for (const struct tcp_tracking &rec : t->slots) {
			if (!rec.held_skb)
				continue;
			if (!kmodel_skb_is_live(rec.held_skb) || !held.insert(rec.held_skb).second)
				abort();
		}
	}
	if (kmodel_skb_stats_get().live != (long)held.size())
		abort();
}

struct sk_buff *reply_buffer(const sim::Bytes &request, const uint8_t *&p, const uint8_t *end)
{
	uint8_t op = *p++, verdict = *p++, url_len = *p++, linear = *p++;
	struct rating_reply reply;

	memset(&reply, 0, sizeof(reply));
	memcpy(&reply, request.data(), std::min(request.size(), offsetof(struct rating_reply, verdict)));
	reply.kind = (op & 0x08) ? verdict >> 4 : RATING_KIND_REPLY;
	reply.service += (op & 0x10) ? 0 : 1;
	static const u32 verdicts[] = {PASS, WHITE_PASS, BLOCK, 0x7fffffff};
	reply.verdict = verdicts[verdict & 3];
	if (op & 0x20)
		memset(reply.redirect_url, 'A',
		       (verdict & 4) ? sizeof(reply.redirect_url) + sizeof(reply.pad1) : sizeof(reply.redirect_url) - 1);
	size_t n = std::min<size_t>(url_len, end - p);
	n = std::min(n, sizeof(reply.redirect_url));
	memcpy(reply.redirect_url, p, n);
	p += n;

	sim::Bytes msg(16 + sizeof(reply));
	u32 len = msg.size();
	memcpy(&msg[0], &len, 4);
	memcpy(&msg[16], &reply, sizeof(reply));
	if (op & 0x40)
		msg.resize(std::min<size_t>(msg.size(), 16 + 2 * linear));
	return kmodel_skb_build(msg.data(), msg.size(), (size_t)linear * 4, 0);
}

void next_packets(sim::Router &r)
{
	using namespace fuzz;
	const char *clients[] = {kClient, kClient6}, *servers[] = {kServer, kServer6}, *flows[] = {kFlow, kFlow6};
	for (int v6 = 0; v6 < 2; v6++) {
		r.forward(l4(false, clients[v6], servers[v6], 40000, 80, sim::ACK, 147, 501, ""), r.br0(), r.wan());
		r.forward(l4(false, servers[v6], clients[v6], 80, 40000, sim::ACK, 501, 147, ""), r.wan(), r.br0(),
			  sim::kGatewayMac);
		for (uint16_t port : {443, 8443})
			r.forward(l4(false, clients[v6], flows[v6], 41000, port, sim::ACK, 5, 1, "x"), r.br0(), r.wan());
	}
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	if (size < 1)
		return 0;
	const uint8_t *p = data + 1, *end = data + size;
	{
		sim::Router r;
		sim::NetlinkPeer daemon;
		if (!fuzz::boot(r, data[0]))
			abort();
		fuzz::populate(r);
		std::vector<sim::Bytes> requests = daemon.read_payloads();
		if (requests.empty())
			requests.push_back(sim::Bytes(RATING_MSG_LEN, 0));
		check_held_copies();
		while (end - p >= 4) {
			const sim::Bytes &request = requests[(*p & 7) % requests.size()];
			bool next = *p & 0x80;
			struct sk_buff *skb = reply_buffer(request, p, end);
			rcv_from_sk(skb);
			kfree_skb(skb);
			if (next)
				next_packets(r);
			check_held_copies();
			daemon.read();
		}
		r.unload();
	}
	// The held copies and the IPv6 table the filter keeps after unload.
	kmodel_free_all();
	kmodel_reset();
	return 0;
}
