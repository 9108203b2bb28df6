#!/usr/bin/env bash
# Runs one fuzzer for a bounded time from its seed corpus. New inputs go to
# a scratch directory so the committed corpus stays as it is.
set -euo pipefail
bin=$1 corpus=$2 seconds=$3
[ -x "$bin" ] || { echo "fuzzer $bin not built (run make fuzz-build)"; exit 1; }
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
dirs=("$scratch")
[ -d "$corpus" ] && dirs+=("$corpus")
"$bin" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 \
	-artifact_prefix="$scratch/" "${dirs[@]}" 2>&1 | tail -n 15
