// A short soak: seeded, mixed and churning traffic on the loaded filter
// (many clients of both families, HTTP connections opened and left
// half-way, DNS answers, rated flows, a daemon that answers late, never or
// with any verdict, list and service changes, the clock across the wrap).
// Checked every few hundred steps: every slot of every table is on
// exactly one list (a bucket chain or the free list, the two HTTP tables
// together since slots move between them), the age lists hold exactly the
// slots in use, the only live buffers are the held copies, and the live
// blocks are the tables' plus the list entries ever made.
// DNSHOOK_SOAK_STEPS sets the number of steps (50,000 by default, the
// short run of the suite); the test prints the packets it sent, the live
// blocks and buffers the filter holds at the end and the process's
// resident memory, so that a long run by hand shows memory staying flat.
// The standard headers come first: the kernel headers define __init.
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <map>
#include <random>
#include <set>
#include <unistd.h>

#include "hooks/fixture.h"

#include "sim/invariants.h"

#include "kmodel/host.h"
#include "kmodel/net.h"
#include "lists/tblock.h"
#include "lists/unblock.h"
#include "track/dns_table.h"

namespace {

using namespace hooks_test;

long resident_kib()
{
	long pages = 0, rss = 0;
	FILE *f = fopen("/proc/self/statm", "r");
	if (f && fscanf(f, "%ld %ld", &pages, &rss) != 2)
		rss = 0;
	if (f)
		fclose(f);
	return rss * (sysconf(_SC_PAGESIZE) / 1024);
}

class Soak : public HookTest {
protected:
	std::mt19937 rng{ 20261122 };
	uint32_t pick(uint32_t n) { return rng() % n; }

	std::vector<Conn> conns;
	std::vector<int> stage;
	std::vector<rating_request> pending; // requests the daemon holds
	long list_entries = 0; // adds attempted: an upper bound of entries made
	long base_blocks = 0;
	long long packets = 0;

	sim::Verdict up(const Bytes &p, const sim::Mac &m = sim::kClientMac) { packets++; return HookTest::up(p, m); }
	sim::Verdict down(const Bytes &p) { packets++; return HookTest::down(p); }

	std::string client4(uint32_t i) { return "192.168.1." + std::to_string(10 + i % 40); }
	std::string server4(uint32_t i) { return "93.184.216." + std::to_string(1 + i % 200); }
	sim::Mac mac(uint32_t i) { return { 0x00, 0x11, 0x22, 0x33, 0x44, uint8_t(0x50 + i % 8) }; }

	void http_step()
	{
		// Up to 260 open connections: more than the 200 slots.
		if (conns.size() < 260 && pick(3) == 0) {
			Conn c = Conn(uint16_t(30000 + pick(30000)), pick(4) == 0);
			uint32_t who = pick(256);
			c.client = sim::ip4(client4(who).c_str());
			c.server = sim::ip4(server4(pick(256)).c_str());
			c.client6[15] = uint8_t(who);
			conns.push_back(c);
			stage.push_back(0);
		}
		if (conns.empty())
			return;
		size_t i = pick(conns.size());
		Conn &c = conns[i];
		sim::Mac m = mac(c.cport);
		switch (stage[i]++) {
		case 0: up(c.up(sim::SYN), m); break;
		case 1: down(c.down(sim::SYN | sim::ACK)); break;
		case 2: up(c.up(sim::ACK), m); break;
		case 3: up(c.up(sim::PSH | sim::ACK, get_request("h" + std::to_string(pick(50)) + ".example")), m); break;
		case 4: down(c.down(sim::ACK)); break;
		case 5: up(c.up(pick(2) ? sim::FIN | sim::ACK : sim::ACK), m); break;
		default:
			down(c.down(sim::FIN | sim::ACK));
			conns.erase(conns.begin() + i);
			stage.erase(stage.begin() + i);
		}
	}

	void dns_and_flow_step()
	{
		std::string name = "f" + std::to_string(pick(120)) + ".example";
		std::string c = client4(pick(256)), s = server4(pick(256));
		if (pick(2)) {
			up(udp(c.c_str(), kResolver, 40001, 53, dns_query(3, name)));
			down(udp(kResolver, c.c_str(), 53, 40001,
				 dns_response(3, name, { s.c_str() }, { "2001:db8:2::50" })));
		}
		uint16_t port = pick(2) ? 443 : uint16_t(1000 + pick(5000));
		up(tcp(c.c_str(), s.c_str(), uint16_t(41000 + pick(100)), port, pick(2) ? sim::SYN : sim::ACK), mac(pick(8)));
	}

	void daemon_step()
	{
		for (const rating_request &q : requests())
			pending.push_back(q);
		while (!pending.empty() && pick(3)) {
			size_t i = pick(pending.size());
			rating_request q = pending[i];
			pending.erase(pending.begin() + i);
			if (pick(5) == 0)
				continue; // lost
			rating_reply a = answer(q, pick(4), kBlockUrl);
			peer.send(0, &a, sizeof(a));
		}
	}

	void control_step()
	{
		char m[32];
		snprintf(m, sizeof(m), "00:11:22:33:44:%02x", 0x50 + pick(8));
		switch (pick(6)) {
		case 0: list_entries++, r.write_proc("tblock_proc", std::string("add ") + m + "\n"); break;
		case 1: r.write_proc("tblock_proc", std::string("del ") + m + "\n"); break;
		case 2: list_entries++, r.write_proc("unblock_proc", std::string("+|") + m); break;
		case 3: r.write_proc("unblock_proc", std::string("-|") + m); break;
		default: services(pick(2), pick(2));
		}
	}

};

TEST_F(Soak, MixedChurningTrafficKeepsTheTablesAndMemoryConsistent)
{
	services(true, true);
	r.route("8.8.8.0/24", r.wan(), KMODEL_OUT_HH, &sim::kGatewayMac);
	base_blocks = kmodel_alloc_stats_get().live_blocks;
	const uint32_t start = r.now();
	bool wrapped = false;
	const char *env = getenv("DNSHOOK_SOAK_STEPS");
	const long steps = env ? atol(env) : 50000;
	ASSERT_GT(steps, 0) << "DNSHOOK_SOAK_STEPS=" << env;
	long rss_first = 0, rss_max = 0;
	long blocks_max = 0;
	for (long step = 1; step <= steps; step++) {
		switch (pick(10)) {
		case 0: case 1: case 2: case 3: http_step(); break;
		case 4: case 5: dns_and_flow_step(); break;
		case 6: case 7: daemon_step(); break;
		case 8: if (pick(20) == 0) control_step(); break;
		default: r.advance(pick(8) == 0 ? 70000 : pick(3000));
		}
		wrapped |= r.now() < start;
		if (step % 500 == 0) {
			EXPECT_STREQ(nullptr, invariants::tables());
			EXPECT_STREQ(nullptr, invariants::buffers());
			EXPECT_LE(kmodel_alloc_stats_get().live_blocks, base_blocks + list_entries);
			EXPECT_GE(kmodel_alloc_stats_get().live_blocks, base_blocks);
			if (HasFailure())
				FAIL() << "at step " << step << ", packet " << packets;
			// The model's own records of log lines and sent frames are
			// not the filter's memory: dropped so that they do not grow.
			kmodel_log_clear();
			r.clear_sent();
			if (step % 20000 == 0)
				r.conntrack_expire_all();
			blocks_max = std::max(blocks_max, kmodel_alloc_stats_get().live_blocks);
			long rss = resident_kib();
			if (step >= steps / 10 && !rss_first)
				rss_first = rss;
			rss_max = std::max(rss_max, rss);
		}
		if (steps >= 100000 && step % (steps / 10) == 0)
			printf("soak: step %ld, %lld packets, %ld live blocks, %ld live buffers, %ld KiB resident, "
			       "%ld conntrack entries destroyed (%ld of them still quarantined)\n",
			       step, packets, kmodel_alloc_stats_get().live_blocks, kmodel_skb_stats_get().live,
			       resident_kib(), kmodel_ct_destroy_count(), kmodel_ct_quarantined());
	}
	EXPECT_TRUE(wrapped) << "the clock did not cross the wrap";
	// Flat memory: in a long run the process may not grow by more than half
	// of what it held after a tenth of the run.
	EXPECT_TRUE(steps < 1000000 || rss_max < rss_first + rss_first / 2) << "resident memory grew";
	kmodel_alloc_stats a = kmodel_alloc_stats_get();
	printf("soak: %ld steps, %lld packets; live blocks: %ld at start, %ld at most, %ld at the end "
	       "(%ld list adds attempted); live buffers at the end: %ld (held copies); resident memory: "
	       "%ld KiB after a tenth of the run, %ld KiB at most\n",
	       steps, packets, base_blocks, blocks_max, a.live_blocks, list_entries, kmodel_skb_stats_get().live,
	       rss_first, rss_max);
	printf("soak: %zu requests held by the daemon, %zu connections open\n", pending.size(), conns.size());
}

// The walk the soak and the fuzzers rely on sees each kind of broken list,
// and passes again once the lists are whole.
TEST_F(HookTest, InvariantsSeeBrokenLists)
{
	struct track_pool *pool = &dns_table->pool;
	struct list_head *bucket = &pool->buckets[3], stray;
	struct track_node *x = container_of(pool->free_list.next, track_node, hash_link);
	const struct list_head free_list = pool->free_list, age_list = pool->age_list, b = *bucket,
			       hash_link = x->hash_link, age_link = x->age_link;
	const struct {
		const char *want;
		std::function<void()> bend;
	} cases[] = {
		{"a slot on no list", [&] { pool->free_list.next = x->hash_link.next; }},
		{"a list that loops", [&] { x->hash_link.next = &x->hash_link; }},
		{"a link to no slot", [&] { bucket->next = &stray; stray.next = bucket; }},
		{"the age list does not hold exactly the slots in use",
		 [&] { pool->age_list.next = &x->age_link; x->age_link.next = &pool->age_list; }},
	};
	ASSERT_STREQ(nullptr, invariants::tables());
	for (const auto &c : cases) {
		c.bend();
		EXPECT_STREQ(c.want, invariants::tables());
		pool->free_list = free_list, pool->age_list = age_list, *bucket = b;
		x->hash_link = hash_link, x->age_link = age_link;
		ASSERT_STREQ(nullptr, invariants::tables()) << c.want;
	}
}

} // namespace
