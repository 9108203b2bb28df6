#!/usr/bin/env bash
# A long run of dnshookd and dnshook-rated on real traffic, by hand (never
# part of make test): the end-to-end topology (tests/e2e/netns.sh), both
# clients fetching pages over IPv4 and IPv6, resolving names and opening
# flows without pause, while the services go through every combination,
# devices are time-blocked and unblocked, and the rating daemon is
# restarted. Every phase begins with a probe whose outcome is known
# (blocked.test redirected with a service on, served with both off).
#
#   scripts/soak-live.sh BUILD_DIR [SECONDS]      (as root; default 600)
#
# Use the sanitizer build (build-asan, made by make test) to have memory
# errors and leaks reported. Fails if dnshookd dies, exits with a status
# other than 0, writes a sanitizer report, answers a probe wrongly or
# grows its resident memory by half after the first phase. Prints what
# the clients did and dnshookd's memory phase by phase.
set -u
E2E_BUILD=$(realpath "${1:?usage: soak-live.sh BUILD_DIR [SECONDS]}")
secs=${2:-600}
root=$(cd "$(dirname "$0")/.." && pwd)
. "$root/tests/e2e/netns.sh"
e2e_begin
POLICY=$root/tests/e2e/test.policy
export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:quarantine_size_mb=16}
export LSAN_OPTIONS=${LSAN_OPTIONS:-suppressions=$root/scripts/lsan.supp:print_suppressions=0}
e2e_rated "$POLICY" --quiet
e2e_dnshookd --log-level 4

# Clients: each loop runs until the file "stop" appears, counting outcomes
# ("page", "302", "fail") in a file of its own.
sites="allowed.test:10 blocked.test:20 white.test:30 flow.test:40"
web() { # NS FAMILY ID
	local ns=$1 fam=$2 id=$3 n=0 site name addr code
	while [ ! -e "$E2E_DIR/stop" ]; do
		for site in $sites; do
			name=${site%%:*}
			addr=198.51.100.${site##*:}
			[ "$fam" = 6 ] && addr=2001:db8:100::${site##*:}
			code=$(FETCH_TIMEOUT=8 fetch "$ns" "$name" "$addr" "/soak/$id/$n")
			case $? in
			0) echo "${code%% *}" ;;
			*) echo fail; echo "$(date +%s) $name $addr /soak/$id/$n" >>"$E2E_DIR/failed" ;;
			esac >>"$E2E_DIR/web-$id"
			n=$((n + 1))
		done
	done
}
dns() { # NS ID
	local n=0
	while [ ! -e "$E2E_DIR/stop" ]; do
		for q in "allowed.test A" "blocked.test AAAA" "flow.test A" "n$n.nowhere.test A"; do
			in_ns "$1" dig +short +time=2 +tries=1 @192.0.2.2 $q >/dev/null && echo ok || echo fail
		done >>"$E2E_DIR/dns-$2"
		n=$((n + 1))
	done
}
flows() { # NS ID
	while [ ! -e "$E2E_DIR/stop" ]; do
		for addr in 198.51.100.40 198.51.100.60 2001:db8:100::40 "$UNRESOLVED4"; do
			[ -n "$(BANNER_TIMEOUT=3 banner "$1" "$addr")" ] && echo ok || echo fail
		done >>"$E2E_DIR/flow-$2"
	done
}
count() { cat "$E2E_DIR"/$1 2>/dev/null | grep -c "^$2\$"; }
rss() { awk '/^VmRSS/ { print $2 }' "/proc/$DNSHOOKD_PID/status" 2>/dev/null; }

clients=()
web "$NS_C0" 4 c0v4 & clients+=($!)
web "$NS_C0" 6 c0v6 & clients+=($!)
web "$NS_C1" 4 c1v4 & clients+=($!)
dns "$NS_C0" c0 & clients+=($!)
dns "$NS_C1" c1 & clients+=($!)
flows "$NS_C0" c0 & clients+=($!)
flows "$NS_C1" c1 & clients+=($!)

fails=0
bad() { echo "FAIL: $*"; fails=$((fails + 1)); }
start=$(date +%s) phase=0 rss1=
printf '%6s %-18s %9s %9s %7s %9s %9s %10s %8s %8s\n' time phase pages redirects fails dns-lost flow-cut rss-KiB buffers conns
while (($(date +%s) - start < secs)); do
	wp=$((phase % 4 == 0 || phase % 4 == 2 ? 1 : 0))
	pc=$((phase % 4 == 1 || phase % 4 == 2 ? 1 : 0))
	echo $wp >"$CTL/wl_warning_page"
	echo $pc >"$CTL/pcg_proc"
	# Every third phase: client1 time-blocked and freed again; every
	# fifth: the rating daemon restarted.
	if ((phase % 3 == 2)); then
		echo "add $MAC_C1" >"$CTL/tblock_proc"
		# Success reads as EFAULT here, as the filter answers it.
		printf '+|%s' "$MAC_C1" 2>/dev/null >"$CTL/unblock_proc"
		echo "del $MAC_C1" >"$CTL/tblock_proc"
	fi
	if ((phase % 5 == 4)); then
		echo "$(date +%s) rating daemon restarted" >>"$E2E_DIR/failed"
		kill "$RATED_PID" && wait "$RATED_PID" 2>/dev/null
		e2e_rated "$POLICY" --quiet
	fi
	want=blocked
	((wp + pc == 0)) && want=page
	got=$(FETCH_TIMEOUT=8 fetch "$NS_C0" blocked.test 198.51.100.20 "/probe/$phase")
	case "$want $?" in
	"blocked 0") [[ $got == "302 0 http://blocked.lan/?host=blocked.test&service="* ]] || bad "phase $phase (WP $wp PC $pc): probe got '$got'" ;;
	"page 0") [[ $got == "200 65536 "* ]] || bad "phase $phase (WP $wp PC $pc): probe got '$got'" ;;
	*) bad "phase $phase (WP $wp PC $pc): probe failed ($got)" ;;
	esac
	sleep 10
	kill -0 "$DNSHOOKD_PID" 2>/dev/null || { bad "dnshookd died"; break; }
	now=$(rss)
	[ "$phase" = 1 ] && rss1=$now
	printf '%6s %-18s %9s %9s %7s %9s %9s %10s %8s %8s\n' $(($(date +%s) - start))s "$phase (WP $wp PC $pc)" \
		"$(count 'web-*' 200)" "$(count 'web-*' 302)" "$(count 'web-*' fail)" \
		"$(count 'dns-*' fail)" "$(count 'flow-*' fail)" "$now" "$(status counters buffers)" "$(status tables connections)"
	phase=$((phase + 1))
done
touch "$E2E_DIR/stop"
wait "${clients[@]}" 2>/dev/null
last=$(rss)
if [ -n "$rss1" ] && [ -n "$last" ] && ((last > rss1 * 3 / 2)); then
	bad "dnshookd grew from $rss1 to $last KiB resident"
fi
e2e_stop_dnshookd TERM
rc=$?
[ "$rc" = 0 ] || bad "dnshookd exited with $rc"
grep -q "Sanitizer" "$E2E_DIR/dnshookd.log" && { bad "sanitizer report:"; sed -n '/Sanitizer/,$p' "$E2E_DIR/dnshookd.log"; }
grep -q "Sanitizer" "$E2E_DIR/rated.log" && { bad "sanitizer report in the rating daemon:"; sed -n '/Sanitizer/,$p' "$E2E_DIR/rated.log"; }
[ -s "$E2E_DIR/failed" ] && { echo "failed fetches (seconds since the epoch, host, address, path) and daemon restarts:"; cat "$E2E_DIR/failed"; }
echo "$phase phases in $(($(date +%s) - start)) s: $(count 'web-*' 200) pages, $(count 'web-*' 302) redirects," \
	"$(count 'web-*' fail) failed fetches; $(count 'dns-*' ok) answers, $(count 'dns-*' fail) lost;" \
	"$(count 'flow-*' ok) flows, $(count 'flow-*' fail) refused or cut"
((fails == 0)) && echo "soak: passed" || { echo "soak: $fails failure(s)"; exit 1; }
