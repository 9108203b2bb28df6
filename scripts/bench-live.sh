#!/usr/bin/env bash
# What filtering costs a household on a real Linux router: the namespace
# router of the end-to-end tests (tests/e2e/netns.sh) with real TCP stacks,
# measured in one run and printed as one table:
#   - TCP throughput (iperf3) and forwarded packets per second of 64-byte
#     UDP datagrams (iperf3, unlimited rate), client0 to a server behind the
#     WAN: with no queue, with an accept-all NFQUEUE program of our own
#     (bench/live/nfq_accept.cpp), and with dnshookd with services off, WP
#     on, PC on and both on (dnshookd with --fail-closed, so that a full
#     queue drops rather than lets packets by unfiltered and the figure is
#     what dnshookd really forwards);
#   - the time to the first byte of an allowed page and of a blocked page
#     (its redirect with the filter) with a 20 ms WAN delay (netem), with
#     and without the filter, median of several fetches;
#   - the resident memory of dnshookd and dnshook-rated after that load.
# No delay on the WAN during the throughput runs, so they show the
# router's work rather than the delay.
#
#   scripts/bench-live.sh [BUILD_DIR]     (as root, after make build)
#
# BENCH_SECONDS (default 5) per throughput run, BENCH_FETCHES (default 9)
# fetches per page. Exit 77 when root, namespaces or the tools are missing.
set -u

root=$(cd "$(dirname "$0")/.." && pwd)
E2E_BUILD=$(realpath "${1:-build}")
E2E_ID=bl$$
. "$root/tests/e2e/netns.sh"
secs=${BENCH_SECONDS:-5}
fetches=${BENCH_FETCHES:-9}
SERVER=198.51.100.40 # flow.test
QUEUE=4000

why=$(e2e_unsupported)
[ -z "$why" ] && ! command -v iperf3 >/dev/null && why="iperf3 is not installed (bash scripts/deps.sh)"
[ -z "$why" ] && [ ! -x "$E2E_BUILD/runtime/dnshookd" ] && why="$E2E_BUILD/runtime/dnshookd is not built"
if [ -n "$why" ]; then
	echo "SKIP: the live measurement needs root, network namespaces and its tools: $why"
	rm -rf "$E2E_DIR"
	exit 77
fi

nfq=$E2E_DIR/nfq_accept
g++ -std=c++20 -O2 -Wall -Wextra -Werror "$root/bench/live/nfq_accept.cpp" -lnetfilter_queue -o "$nfq" ||
	{ echo "bench-live.sh: could not build the accept-all NFQUEUE program" >&2; exit 1; }

trap 'e2e_down; rm -rf "$E2E_DIR"' EXIT
trap 'exit 130' INT TERM
e2e_up || { echo "bench-live.sh: could not build the topology" >&2; exit 1; }

# wan_delay on|off: 20 ms on the router's WAN port where the kernel has
# netem; DELAY says what the fetches got.
DELAY="20 ms WAN"
wan_delay() {
	r tc qdisc del dev wan0 root 2>/dev/null
	srv tc qdisc del dev eth0 root 2>/dev/null
	[ "$1" = on ] || return 0
	r tc qdisc add dev wan0 root netem delay 20ms 2>/dev/null ||
		DELAY="no WAN delay: this kernel has no netem"
}

# ---- throughput ----
e2e_bg ip netns exec "$NS_S" iperf3 -s -B $SERVER >"$E2E_DIR/iperf3.log" 2>&1
e2e_wait 10 "iperf3 server" srv sh -c "ss -Htln | grep -q '$SERVER:5201'"

# tcp_mbits / udp_kpps: one iperf3 run from client0, its figure.
tcp_mbits() {
	c0 iperf3 -c $SERVER --connect-timeout 3000 -t "$secs" -J 2>/dev/null |
		python3 -c 'import json,sys; print("%.0f" % (json.load(sys.stdin)["end"]["sum_received"]["bits_per_second"] / 1e6))' 2>/dev/null ||
		echo "-"
}
udp_kpps() {
	c0 iperf3 -c $SERVER --connect-timeout 3000 -u -l 64 -b 0 -t "$secs" -J 2>/dev/null |
		python3 -c 'import json,sys
s = json.load(sys.stdin)["end"]["sum"]
print("%.1f" % ((s["packets"] - s["lost_packets"]) / s["seconds"] / 1e3))' 2>/dev/null || echo "-"
}

# The better of two runs each: other work on the machine only ever slows
# a run down.
best() { printf '%s\n' "$@" | grep -v '^-$' | sort -g | tail -1 | grep . || echo -; }
declare -A TCP UDP
measure() { # label
	TCP[$1]=$(best "$(tcp_mbits)" "$(tcp_mbits)")
	UDP[$1]=$(best "$(udp_kpps)" "$(udp_kpps)")
	printf '  %-24s %8s Mbit/s %8s kpps\n' "$1" "${TCP[$1]}" "${UDP[$1]}" >&2
}

wan_delay off
echo "throughput, $secs s a run:" >&2
measure "no queue"

ip netns exec "$NS_R" "$nfq" --queue $QUEUE >"$E2E_DIR/nfq.log" 2>&1 &
nfq_pid=$!
e2e_pids+=($nfq_pid)
r iptables -t mangle -I FORWARD -j NFQUEUE --queue-num $QUEUE --queue-bypass
e2e_wait 5 "the accept-all program" grep -q ready "$E2E_DIR/nfq.log"
measure "accept-all NFQUEUE"
r iptables -t mangle -D FORWARD -j NFQUEUE --queue-num $QUEUE --queue-bypass
kill "$nfq_pid"
wait "$nfq_pid" 2>/dev/null

e2e_rated "$root/tests/e2e/test.policy"
e2e_dnshookd --fail-closed
for mode in "off 0 0" "WP on 1 0" "PC on 0 1" "both on 1 1"; do
	set -- $mode
	label="dnshookd, ${*:1:$#-2}"
	echo "${*: -2:1}" >"$CTL/wl_warning_page"
	echo "${*: -1}" >"$CTL/pcg_proc"
	# A flow to a resolved server, rated once (its first packets wait for
	# the verdict), so the measured flows pass as a household's would.
	resolve "$NS_C0" flow.test >/dev/null
	banner "$NS_C0" $SERVER >/dev/null
	measure "$label"
done
rss() { awk '/^VmRSS/ { r = $2 } /^VmHWM/ { h = $2 } END { printf "%.1f MiB (peak %.1f)", r / 1024, h / 1024 }' "/proc/$1/status"; }
mem_hookd=$(rss "$DNSHOOKD_PID")
mem_rated=$(rss "$RATED_PID")

# ---- first byte over a 20 ms WAN ----
# median_ttfb HOST ADDR: the median time to the first byte, in ms, and
# what the last fetch got ("200" or "302").
median_ttfb() {
	local i t code times=()
	for ((i = 0; i < fetches; i++)); do
		read -r t code < <(c0 curl -s -m 5 -o /dev/null -H "Host: $1" \
			-w '%{time_starttransfer} %{http_code}\n' "http://$2/ttfb-$i-$RANDOM")
		times+=("$t")
	done
	printf '%s\n' "${times[@]}" | sort -n | awk -v code="$code" '{ a[NR] = $1 } END { printf "%.1f %s\n", a[int((NR + 1) / 2)] * 1000, code }'
}
wan_delay on
echo 1 >"$CTL/wl_warning_page"
echo 1 >"$CTL/pcg_proc"
read -r with_allowed with_allowed_code < <(median_ttfb allowed.test 198.51.100.10)
read -r with_blocked with_blocked_code < <(median_ttfb blocked.test 198.51.100.20)
e2e_stop_dnshookd TERM
read -r without_allowed without_allowed_code < <(median_ttfb allowed.test 198.51.100.10)
read -r without_blocked without_blocked_code < <(median_ttfb blocked.test 198.51.100.20)

# ---- the table ----
# verdict EXPR: met / NOT met, or "not measured" when a figure is missing.
verdict() {
	python3 -c "print('met' if $1 else 'NOT met')" 2>/dev/null || echo "not measured"
}
num() { [ "$1" = - ] && echo None || echo "$1"; }
echo
printf '%-28s %12s %14s\n' "forwarding (no WAN delay)" "TCP Mbit/s" "UDP 64 B kpps"
echo "--------------------------------------------------------"
for label in "no queue" "accept-all NFQUEUE" "dnshookd, off" "dnshookd, WP on" "dnshookd, PC on" "dnshookd, both on"; do
	printf '%-28s %12s %14s\n' "$label" "${TCP[$label]}" "${UDP[$label]}"
done
echo
echo "first byte ($DELAY), median of $fetches fetches"
printf '%-36s %10s %10s\n' "" "without" "with"
echo "--------------------------------------------------------------"
printf '%-36s %7s ms %7s ms\n' "allowed page (200)" "$without_allowed" "$with_allowed"
printf '%-36s %7s ms %7s ms\n' "blocked page (without $without_blocked_code, with $with_blocked_code)" \
	"$without_blocked" "$with_blocked"
echo
echo "resident memory after the load: dnshookd $mem_hookd, dnshook-rated $mem_rated"
echo
off=$(num "${TCP[dnshookd, off]}") none=$(num "${TCP[no queue]}") nfqp=$(num "${UDP[accept-all NFQUEUE]}")
both=$(num "${UDP[dnshookd, both on]}")
hookd_mib=${mem_hookd%% *}
echo "targets: services off within noise of no queue (TCP $off of $none Mbit/s): $(verdict "$off >= 0.9 * $none")"
echo "         services on >= 80% of the accept-all program's packets/s ($both of $nfqp kpps): $(verdict "$both >= 0.8 * $nfqp")"
echo "         allowed page's first byte at most 5 ms later ($with_allowed vs $without_allowed ms): $(verdict "$with_allowed - $without_allowed <= 5")"
echo "         dnshookd under 8 MiB resident ($hookd_mib MiB): $(verdict "$hookd_mib < 8")"
echo "(machine: $(nproc) CPUs, $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2 | xargs), kernel $(uname -r), loaded by other work; one run)"
