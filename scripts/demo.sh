#!/usr/bin/env bash
# `make demo`: the live demo (real namespaces, dnshookd and dnshook-rated)
# where the machine allows it; otherwise the replay of a bundled capture;
# otherwise the filter on the simulated router.
set -uo pipefail
cd "$(dirname "$0")/.."
build=${1:-build}

why=""
if [ "$(id -u)" -ne 0 ]; then
	why="not running as root"
elif ! ip netns add dnshook-probe.$$ 2>/dev/null; then
	why="network namespaces cannot be created here"
else
	ip netns del dnshook-probe.$$
fi

if [ -z "$why" ] && [ -x scripts/live-demo.sh ] && [ -x "$build/runtime/dnshookd" ]; then
	exec scripts/live-demo.sh "$build"
fi
[ -n "$why" ] && echo "The live demo needs root and network namespaces ($why): replaying a capture instead."
if [ -x scripts/replay-demo.sh ] && [ -x "$build/tools/dnshook-replay" ]; then
	exec scripts/replay-demo.sh "$build"
fi
exec "$build/tools/dnshook-demo"
