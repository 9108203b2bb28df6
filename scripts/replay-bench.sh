#!/usr/bin/env bash
# Replays a capture of at least 100,000 packets of mixed traffic and prints
# the summaries (packets per second among them). The capture is made from
# tests/data/replay/story.pcap by scale.py beside it (1053 clients, each the
# story's conversation, starting 20 ms apart), into a temporary directory.
# Usage: scripts/replay-bench.sh [BUILD_DIR] [COPIES]
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build}
copies=${2:-1053}
replay="$build/tools/dnshook-replay"
data=tests/data/replay
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

python3 "$data/scale.py" "$data/story.pcap" "$copies" "$work/mixed.pcap"
for args in "--wp --quiet" "--pc --quiet" "--wp --pc --log-level 7 --out $work/forged.pcap"; do
	echo "== dnshook-replay $args (text output through a pipe, summary shown)"
	# shellcheck disable=SC2086
	"$replay" $args --policy "$data/story.policy" "$work/mixed.pcap" | sed -n '/^== summary ==/,$p'
done
