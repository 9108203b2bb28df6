// Loading and deciding with a block list of 100,000 host rules.
#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "rated/policy.h"

namespace {

std::string block_list(int n)
{
	std::string text = "block-page http://blocked.lan/?host={host}&url={url}\n[wp]\ndefault pass\n";
	for (int i = 0; i < n; i++)
		text += "block ads" + std::to_string(i) + ".tracker" + std::to_string(i % 997) + ".example\n";
	text += "[pc]\ndefault pass\n[device 00:11:22:33:44:55 kids-tablet]\ndefault block\n"
		"pass school.example.org\nschedule sun-thu 21:00-07:00 block\n";
	return text;
}

void BM_Load(benchmark::State &state)
{
	std::string text = block_list(int(state.range(0)));
	for (auto _ : state) {
		std::vector<policy::Error> errors;
		auto p = policy::Policy::parse(text, "bench.policy", errors);
		benchmark::DoNotOptimize(p);
	}
	state.SetLabel(std::to_string(state.range(0)) + " rules");
}
BENCHMARK(BM_Load)->Arg(1000)->Arg(100000)->Unit(benchmark::kMillisecond);

void BM_Decide(benchmark::State &state)
{
	std::vector<policy::Error> errors;
	auto p = policy::Policy::parse(block_list(int(state.range(0))), "bench.policy", errors);
	std::vector<policy::Query> qs(4);
	qs[0].host = "www.ads77.tracker77.example"; // blocked, under a listed name
	qs[0].url = "/pixel.gif";
	qs[1].host = "cdn.static.news.example.com"; // no rule: the default
	qs[1].url = "/a/b/c";
	qs[2].service = policy::Service::pc; // the device's allow list
	qs[2].mac = policy::Mac{ 0x00, 0x11, 0x22, 0x33, 0x44, 0x55 };
	qs[2].host = "www.school.example.org";
	qs[3] = qs[2]; // the device's window or default
	qs[3].host = "games.example.net";
	size_t i = 0;
	for (auto _ : state) {
		auto d = p->decide(qs[i++ & 3]);
		benchmark::DoNotOptimize(d);
	}
	state.SetLabel(std::to_string(state.range(0)) + " rules");
}
BENCHMARK(BM_Decide)->Arg(10)->Arg(1000)->Arg(100000)->Unit(benchmark::kMicrosecond);

} // namespace

BENCHMARK_MAIN();
