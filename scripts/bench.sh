#!/usr/bin/env bash
# The packet path's cost, as one table: instructions per packet or call
# counted by callgrind (the figures of record: repeatable on a shared
# machine), next to an accept-all chain at the same hook points and
# priorities, with the time per case from Google Benchmark beside them.
#
#   scripts/bench.sh [BUILD_DIR]      (make bench runs it)
#
# Counting: collection is on only around the measured packet or call. For a
# packet the figure is the traversal of both hook points (kmodel_nf_hook,
# hooks included) minus the same traversal with no hook registered, so the
# simulator's own work (building the buffer, its conntrack map, routing)
# and the bare walk are left out. The baseline is the same subtraction with
# accept-all hooks. Direct calls count the called function, inclusive.
# BENCH_COUNT (default 200) packets or calls per case.
set -euo pipefail

build=${1:-build}
bin=$build/bench/bench_packet_path
count=${BENCH_COUNT:-200}
root=$(cd "$(dirname "$0")/.." && pwd)

for tool in valgrind python3; do
	command -v "$tool" >/dev/null || { echo "bench.sh: $tool is missing (bash scripts/deps.sh)" >&2; exit 1; }
done
[ -x "$bin" ] || { echo "bench.sh: $bin not built (make build)" >&2; exit 1; }

work=$(mktemp -d)
[ -n "${BENCH_KEEP:-}" ] && echo "bench.sh: keeping $work" >&2 || trap 'rm -rf "$work"' EXIT

"$bin" --data "$root/tests/data" --benchmark_format=json --benchmark_min_time=0.05 \
	>"$work/times.json" 2>"$work/times.log" || { cat "$work/times.log" >&2; exit 1; }
valgrind --tool=callgrind --collect-atstart=no --callgrind-out-file="$work/cg.out" \
	"$bin" --data "$root/tests/data" --count "$count" >"$work/index" 2>"$work/valgrind.log" ||
	{ cat "$work/valgrind.log" >&2; exit 1; }

for f in "$work"/cg.out.*; do
	tag=$(sed -n 's/^desc: Trigger: Client Request: //p' "$f")
	[ -n "$tag" ] && printf '%s\t%s\n' "$tag" "$f"
done >"$work/dumps"

python3 - "$work" "$(nproc)" "$(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2)" <<'EOF'
import json, re, sys
work, cpus, cpu = sys.argv[1], sys.argv[2], sys.argv[3].strip()

def inclusive(path, fn):
    """Instructions spent inside fn and its callees: the sum of the costs
    of every call to fn in one callgrind dump (the callers are the bench
    and the simulator, so no call is counted twice)."""
    names, callee, in_call, total = {}, '', False, 0
    want = re.compile(r'^(?:.*::)?' + re.escape(fn) + r'\(')
    def name(ref):
        m = re.match(r'\((\d+)\)(?: (.*))?', ref)
        if not m:
            return ref
        if m.group(2):
            names[m.group(1)] = m.group(2)
        return names.get(m.group(1), '')
    for line in open(path):
        if line.startswith(('fn=', 'cfn=')):
            n = name(line.split('=', 1)[1].rstrip('\n'))
            if line.startswith('cfn='):
                callee = n
        elif line.startswith('calls='):
            in_call = True
        elif in_call:
            in_call = False
            if want.match(callee):
                total += int(line.split()[-1])
    return total

dumps = dict(line.rstrip('\n').split('\t') for line in open(f'{work}/dumps'))
rows = {}
for line in open(f'{work}/index'):
    case, chain, probe, n, allocs, accepted, requests, nbytes = line.rstrip('\n').split('|')
    tag, n = case + '|' + chain, int(n)
    path = dumps[tag]
    rows.setdefault(case, {})[chain] = dict(
        ir=inclusive(path, probe) / n, log=inclusive(path, 'printk') / n,
        allocs=int(allocs) / n, accepted=int(accepted), requests=int(requests), n=n, bytes=int(nbytes))

times = {b['name'].removesuffix('/manual_time'): b['real_time'] for b in json.load(open(f'{work}/times.json'))['benchmarks']}

targets = {
    'flow passed, services on': ('<= 350', lambda f, r: f <= 350),
    'flow, services off': ('<= 1.2x base', lambda f, r: r is not None and r <= 1.2),
    'rated request segment': ('<= 8,000', lambda f, r: f <= 8000),
    'DNS answer CNAME+4A': ('<= 3,000', lambda f, r: f <= 3000),
    'decode_dns CNAME+4A': ('<= 800', lambda f, r: f <= 800),
    'decode_http browser GET': ('<= 6/byte', None),
}

head = (f"{'case':30} {'filter':>7} {'base':>5} {'ratio':>6} {'/byte':>5} {'log':>6} {'alloc':>5} "
        f"{'acc':>4} {'req':>4} {'ns':>7}  target")
print(head)
print('-' * len(head))
for case, ch in rows.items():
    f = ch['filter']
    base = ratio = None
    fig = f['ir']
    if 'empty' in ch:
        fig = f['ir'] - ch['empty']['ir']
        base = ch['accept-all']['ir'] - ch['empty']['ir']
        ratio = fig / base if base else None
    per_byte = fig / f['bytes'] if f['bytes'] else None
    target, met = targets.get(case, ('', None)), ''
    if target[0]:
        ok = per_byte <= 6 if case == 'decode_http browser GET' else target[1](fig, ratio)
        met = target[0] + (' met' if ok else ' NOT met')
    acc = req = ''
    if 'empty' in ch:
        acc, req = f"{f['accepted'] / f['n']:.1f}", f"{f['requests'] / f['n']:.1f}"
    print(f"{case:30} {fig:7,.0f} {'' if base is None else f'{base:,.0f}':>5} "
          f"{'' if ratio is None else f'{ratio:.1f}x':>6} {'' if per_byte is None else f'{per_byte:.1f}':>5} "
          f"{f['log']:6,.0f} {f['allocs']:5.2f} {acc:>4} {req:>4} {times.get(case, 0):7,.0f}  {met}")
print()
print(f"instructions per packet or call (callgrind, {next(iter(rows.values()))['filter']['n']} each); "
      "packets: hooks of both points minus an empty chain; base: accept-all hooks at the same points;")
print("log: of which printk; alloc: kmalloc calls per packet or call; acc: share of the packets accepted; "
      "req: rating requests sent per packet;")
print(f"ns: Google Benchmark, the whole simulated traversal, noisy ({cpus} CPUs, {cpu})")
EOF
