// Allocation failures, swept: every kmalloc and every socket-buffer
// allocation (alloc_skb, skb_copy, a head enlarged by a pull) made while a
// scenario runs on the loaded filter fails in turn, one per run. A run
// without injection counts the allocations and gives the reference.
//
// Each failing run must: refuse exactly that one allocation; keep after
// unload only what the filter keeps on purpose: the reference's blocks (at
// most the refused one less) and, as buffers, exactly the held copies of
// requests that never got a verdict; send the daemon no more requests than the
// reference; log, beyond the reference's failure, warning and state lines,
// only the lines the filter defines for a failed allocation; and free nothing twice (the model's
// allocators stop the program on a double free; the sanitizer build
// checks every access).
#include "hooks/fixture.h"

#include <algorithm>
#include <functional>
#include <set>

#include "kmodel/host.h"
#include "kmodel/net.h"

namespace {

using namespace hooks_test;

// Lines the filter logs for a failed allocation on the paths swept here.
const std::set<std::string> kFailureLines = {
	"<7>[send_to_user]: Unable to allocate skb\n",
	"<3>[send_blkpage]: skb_copy  error in function send_blkpage!\n\n",
	"<3>[send_blkpage6]: skb_copy  error in send_blkpage6!\n\n",
	"<3>[send_blkpage]: send block page failed!\n\n",
	"<3>[send_blkpage6]: send block page failed!\n\n",
};

// One loaded router with the fixture's routes; the scenario runs on it.
struct Rig : HookTest {
	void TestBody() override {}
	// The daemon's answer to every request received so far. A reply the
	// model cannot deliver (its own buffer refused) is a lost verdict.
	void answer_all(uint32_t verdict)
	{
		for (const rating_request &q : requests()) {
			rating_reply a = answer(q, verdict, kBlockUrl);
			peer.send(0, &a, sizeof(a));
			received++;
		}
	}
	void open(Conn &c)
	{
		up(c.up(sim::SYN));
		down(c.down(sim::SYN | sim::ACK));
		up(c.up(sim::ACK));
	}
	size_t received = 0;
};

// A whole HTTP conversation: handshake, request, the daemon's verdict,
// the client's next segment and the closing handshake; then a second
// connection whose first segment is not a whole request.
void http(Rig &t, bool v6, uint32_t verdict, bool wp, bool pc)
{
	t.services(wp, pc);
	Conn c = Conn(40000, v6), d = Conn(40002, v6);
	t.open(c);
	t.up(c.up(sim::PSH | sim::ACK, get_request("blocked.example", "/x")));
	t.answer_all(verdict);
	t.up(c.up(sim::ACK));
	t.down(c.down(sim::FIN | sim::ACK));
	t.up(c.up(sim::FIN | sim::ACK));
	t.down(c.down(sim::ACK));
	t.open(d);
	t.up(d.up(sim::PSH | sim::ACK, "GET /y HTTP/1.1\r\nHost: blocked.example\r\n"));
	t.up(d.up(sim::PSH | sim::ACK, "\r\n"));
	t.answer_all(verdict);
	t.up(d.up(sim::ACK));
}

// Flows to an address a DNS answer gave: port 443 and another port, both
// families, rated and answered.
void flows(Rig &t, uint32_t verdict, bool wp, bool pc)
{
	t.services(wp, pc);
	t.resolve("flow.example", { "93.184.216.50" }, { "2001:db8:2::50" });
	for (const char *server : { "93.184.216.50", "2001:db8:2::50" })
		for (uint16_t port : { 443, 8443 }) {
			const char *client = strchr(server, ':') ? "2001:db8:1::10" : kClient;
			t.up(tcp(client, server, 41000, port, sim::SYN));
			t.up(tcp(client, server, 41000, port, sim::ACK, { 0x16, 0x03, 0x01 }));
			t.answer_all(verdict);
			t.up(tcp(client, server, 41000, port, sim::ACK, { 'x' }));
		}
}

// The list files: time blocks and exemptions added, looked up by traffic,
// deleted.
void lists(Rig &t)
{
	t.services(false, true);
	t.r.write_proc("tblock_proc", "add 00:11:22:33:44:66\n");
	t.r.write_proc("unblock_proc", "+|00:11:22:33:44:55");
	t.r.write_proc("unblock_proc", "+|00:11:22:33:44:77|http://a.example/");
	Conn c = Conn(40000);
	t.up(c.up(sim::SYN), kClient2Mac);
	t.up(c.up(sim::SYN));
	t.r.write_proc("tblock_proc", "del 00:11:22:33:44:66\n");
	t.r.write_proc("unblock_proc", "-|00:11:22:33:44:55");
}

struct Outcome {
	long failed = 0;              // refused, both pools
	long blocks_left = 0, buffers_left = 0; // live after unload
	long held = 0;                // held copies in the HTTP slots at unload
	size_t requests = 0;
	Lines log;
};

enum class Pool { none, kmalloc, skb };

Outcome run(const std::function<void(Rig &)> &scenario, Pool pool, long nth)
{
	Outcome o;
	Rig t;
	t.SetUp();
	auto a0 = kmodel_alloc_stats_get();
	auto s0 = kmodel_skb_stats_get();
	kmodel_fail_alloc_nth(pool == Pool::kmalloc ? nth : 0);
	kmodel_fail_skb_alloc_nth(pool == Pool::skb ? nth : 0);
	scenario(t);
	kmodel_fail_alloc_nth(0);
	kmodel_fail_skb_alloc_nth(0);
	auto a1 = kmodel_alloc_stats_get();
	auto s1 = kmodel_skb_stats_get();
	o.failed = (a1.failed_allocs - a0.failed_allocs) + (s1.failed_allocs - s0.failed_allocs);
	o.requests = t.received;
	o.log = kmodel_log();
	std::set<const sk_buff *> held;
	for (struct tcp_table_block *tbl : { tcp_table, tcp_table6 })
		for (const struct tcp_tracking &rec : tbl->slots)
			if (rec.held_skb && kmodel_skb_is_live(rec.held_skb))
				held.insert(rec.held_skb);
	o.held = (long)held.size();
	t.TearDown();
	o.blocks_left = kmodel_alloc_stats_get().live_blocks;
	o.buffers_left = kmodel_skb_stats_get().live;
	return o;
}

TEST(AllocSweep, EveryAllocationOfEveryScenarioFailsInTurn)
{
	const struct {
		const char *name;
		std::function<void(Rig &)> scenario;
		// Allocations that can be refused while it runs: per rated
		// request its message, its netlink buffer and the daemon's reply
		// buffer, an HTTP request's held copy, per block the forged
		// answers' copies; the list files' entries.
		long kmallocs, buffers;
	} scenarios[] = {
		{ "http4 block, PC", [](Rig &t) { http(t, false, BLOCK, false, true); }, 2, 12 },
		{ "http4 pass, WP", [](Rig &t) { http(t, false, PASS, true, false); }, 2, 6 },
		{ "http6 block, both", [](Rig &t) { http(t, true, BLOCK, true, true); }, 2, 10 },
		{ "http6 white pass, PC", [](Rig &t) { http(t, true, WHITE_PASS, false, true); }, 2, 6 },
		{ "flows block, PC", [](Rig &t) { flows(t, BLOCK, false, true); }, 4, 8 },
		{ "flows pass, WP", [](Rig &t) { flows(t, PASS, true, false); }, 1, 2 },
		{ "flows white pass, PC", [](Rig &t) { flows(t, WHITE_PASS, false, true); }, 4, 8 },
		{ "list files", lists, 3, 0 },
	};
	for (const auto &s : scenarios) {
		Outcome ref = run(s.scenario, Pool::none, 0);
		ASSERT_EQ(0, ref.failed) << s.name;
		EXPECT_EQ(ref.held, ref.buffers_left) << s.name;
		for (Pool pool : { Pool::kmalloc, Pool::skb }) {
			// The n-th injection that refuses nothing is past the last
			// allocation of the scenario.
			long i = 1;
			for (;; i++) {
				SCOPED_TRACE(std::string(s.name) + (pool == Pool::kmalloc ? ", kmalloc #" : ", buffer #") +
					     std::to_string(i));
				Outcome o = run(s.scenario, pool, i);
				if (o.failed == 0)
					break;
				EXPECT_EQ(1, o.failed);
				// Buffers left: exactly the held copies of records
				// that never got a verdict. Blocks: those of the
				// reference, less the one refused.
				EXPECT_EQ(o.held, o.buffers_left);
				EXPECT_LE(o.blocks_left, ref.blocks_left);
				EXPECT_GE(o.blocks_left, ref.blocks_left - 1);
				EXPECT_LE(o.requests, ref.requests);
				std::multiset<std::string> before(ref.log.begin(), ref.log.end());
				for (const std::string &line : o.log) {
					// Per-packet tracing follows whatever path the
					// failure led to; failures, warnings and state
					// changes are compared.
					if (line.compare(0, 3, "<7>") == 0)
						continue;
					auto it = before.find(line);
					if (it != before.end())
						before.erase(it);
					else
						EXPECT_TRUE(kFailureLines.count(line)) << "new line: " << line;
				}
			}
			EXPECT_EQ(pool == Pool::kmalloc ? s.kmallocs : s.buffers, i - 1)
				<< s.name << (pool == Pool::kmalloc ? ": kmallocs" : ": buffers");
		}
	}
}

} // namespace
