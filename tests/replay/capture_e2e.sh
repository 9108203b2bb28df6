#!/usr/bin/env bash
# End to end: real programs make a fresh capture in namespaces of their own
# (tests/data/replay/capture.sh), and dnshook-replay replays it with the
# story policy. Ports, sequence numbers and times differ from run to run;
# what the filter asks and decides must not. Exit 77 (skipped) without root,
# namespaces or the programs the capture needs.
set -uo pipefail
replay=$1
here=$(cd "$(dirname "$0")" && pwd)
data="$here/../data/replay"

skip() { echo "SKIP: $*"; exit 77; }
[ "$(id -u)" -eq 0 ] || skip "needs root for network namespaces"
probe=rpe2e-probe.$$
ip netns add "$probe" 2>/dev/null || skip "network namespaces cannot be created here"
ip netns del "$probe"
for p in tcpdump dnsmasq dig socat openssl ethtool curl python3; do
	command -v "$p" >/dev/null || skip "$p is not installed"
done

out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT
"$data/capture.sh" "$out" || { echo "FAIL: the capture script failed"; exit 1; }

fail=0
check() {  # service, then the summary fields expected
	local service=$1; shift
	local summary
	summary=$("$replay" "--$service" --json --quiet --policy "$data/story.policy" "$out/story.pcap" | grep '"event":"summary"')
	for want in "$@"; do
		if ! grep -qF "$want" <<<"$summary"; then
			echo "FAIL: --$service: summary lacks $want"
			echo "  $summary"
			fail=1
		fi
	done
}
check wp '"requests":{"WP":5}' '"verdicts":{"BLOCK":2,"PASS":3}' '"redirect":1' '"held copy":2'
check pc '"requests":{"PC":5}' '"verdicts":{"BLOCK":2,"PASS":3}' '"redirect":1' '"https_forward_hook":'
[ $fail -eq 0 ] && echo "PASS: a fresh capture replays with the expected requests and verdicts"
exit $fail
