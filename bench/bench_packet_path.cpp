// The packet path on the simulated router.
//
//   bench_packet_path [--data DIR] [benchmark options]   times every case
//   bench_packet_path --count N [--data DIR]             for callgrind
//   bench_packet_path --count N --profile CASE           one case, no toggles
//
// With --count, each case runs N times with callgrind's collection on only
// around the measured packet or call, and the counts are dumped per case and
// chain ("<case>|filter", "|accept-all", "|empty"); scripts/bench.sh reads
// the dumps. The lines printed on stdout say which function to read in each
// dump, how many calls it holds, and the allocations and verdicts seen.
// With --profile only the filter's run of the named case is made and
// collection is left to callgrind's own options, e.g.
//   valgrind --tool=callgrind --collect-atstart=no
//     --toggle-collect='kmodel_nf_hook*'
//     build/bench/bench_packet_path --count 100 --profile 'DNS query'
// to see where one case's instructions go.
#include <benchmark/benchmark.h>
#include <valgrind/callgrind.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "bench/cases.h"

namespace {

using namespace bench;

bool g_toggles = true;

void toggle_collect()
{
	if (g_toggles)
		CALLGRIND_TOGGLE_COLLECT;
}

const char *chain_name(Chain c)
{
	return c == Chain::Filter ? "filter" : c == Chain::AcceptAll ? "accept-all" : "empty";
}

// One dump: N measured packets or calls of the case through one chain.
void count_case(const Case &c, Chain chain, int n)
{
	Scene s(chain, c.wp, c.pc);
	if (c.setup)
		c.setup(s);
	long allocs = 0, accepted = 0, requests = 0;
	if (g_toggles)
		CALLGRIND_ZERO_STATS;
	for (int i = 0; i < n; i++) {
		if (c.next) {
			Step st = c.next(s, i);
			long before = kmodel_alloc_stats_get().total_allocs;
			toggle_collect();
			sim::Verdict v = st.up ? s.up(st.packet) : s.down(st.packet);
			toggle_collect();
			allocs += kmodel_alloc_stats_get().total_allocs - before;
			accepted += v.accepted();
			requests += long(s.collect());
			if (c.after && filter(s))
				c.after(s, i);
			continue;
		}
		if (c.prepare)
			c.prepare(s, i);
		long before = kmodel_alloc_stats_get().total_allocs;
		toggle_collect();
		c.call(s, i);
		toggle_collect();
		allocs += kmodel_alloc_stats_get().total_allocs - before;
	}
	std::string tag = std::string(c.name) + "|" + chain_name(chain);
	if (g_toggles)
		CALLGRIND_DUMP_STATS_AT(tag.c_str());
	printf("%s|%s|%d|%ld|%ld|%ld|%zu\n", tag.c_str(), c.probe, n, allocs, accepted, requests, case_bytes(c));
}

int count_all(int n, const std::string &only)
{
	for (const Case &c : cases()) {
		if (!only.empty()) {
			if (c.name == only)
				count_case(c, Chain::Filter, n);
			continue;
		}
		count_case(c, Chain::Filter, n);
		if (!c.next)
			continue;
		count_case(c, Chain::AcceptAll, n);
		count_case(c, Chain::Empty, n);
	}
	return 0;
}

// Timed runs (noisy on a shared machine: the counts are the figures of
// record). Only the measured packet or call is timed, by hand, since
// pausing the benchmark's own clock costs more than most cases.
void run_case(benchmark::State &state, const Case *c)
{
	using clock = std::chrono::steady_clock;
	Scene s(Chain::Filter, c->wp, c->pc);
	if (c->setup)
		c->setup(s);
	int i = 0;
	for (auto _ : state) {
		Step st;
		if (c->next)
			st = c->next(s, i);
		else if (c->prepare)
			c->prepare(s, i);
		auto start = clock::now();
		if (c->next)
			benchmark::DoNotOptimize(st.up ? s.up(st.packet) : s.down(st.packet));
		else
			c->call(s, i);
		state.SetIterationTime(std::chrono::duration<double>(clock::now() - start).count());
		if (c->next) {
			s.collect();
			if (c->after)
				c->after(s, i);
		}
		i++;
	}
}

} // namespace

int main(int argc, char **argv)
{
	std::string data = "tests/data";
	int count = 0;
	std::string only;
	int kept = 1;
	for (int i = 1; i < argc; i++) {
		if (!strcmp(argv[i], "--data") && i + 1 < argc)
			data = argv[++i];
		else if (!strcmp(argv[i], "--count") && i + 1 < argc)
			count = atoi(argv[++i]);
		else if (!strcmp(argv[i], "--profile") && i + 1 < argc)
			only = argv[++i], g_toggles = false;
		else if (!strcmp(argv[i], "--help")) {
			printf("usage: %s [--data DIR] [--count N [--profile CASE]] [benchmark options]\n"
			       "  --data DIR  the captures (default tests/data)\n"
			       "  --count N   run each case N times for callgrind and print what to read\n"
			       "  --profile CASE  with --count: only that case, no collection toggles\n",
			       argv[0]);
			return 0;
		} else
			argv[kept++] = argv[i];
	}
	argc = kept;
	load_inputs(data);
	if (inputs().alias.empty() || inputs().many.empty() || inputs().wget.empty()) {
		fprintf(stderr, "%s: the captures under %s are missing or unreadable (try --data)\n", argv[0],
			data.c_str());
		return 2;
	}
	if (count > 0)
		return count_all(count, only);

	for (const Case &c : cases())
		benchmark::RegisterBenchmark(c.name, run_case, &c)->UseManualTime();
	benchmark::Initialize(&argc, argv);
	benchmark::RunSpecifiedBenchmarks();
	benchmark::Shutdown();
	return 0;
}
