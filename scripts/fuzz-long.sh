#!/usr/bin/env bash
# Long fuzzing run by hand: one target for a number of executions, from its
# seed corpus, growing a corpus of its own outside the tree.
#
#   scripts/fuzz-long.sh TARGET [EXECUTIONS] [WORKDIR]
#
# EXECUTIONS defaults to ten million, WORKDIR to /var/tmp/dnshook-fuzz.
# The run's log ends with libFuzzer's final statistics; findings are written
# as WORKDIR/TARGET-crash-* (and -leak-, -timeout-, -oom-).
#
# AddressSanitizer keeps freed memory out of use for a while to catch use
# after free. Its default quarantine (256 MB) makes every load of the filter
# touch fresh pages; 16 MB still outlasts everything one input frees, and
# runs the loading harnesses about 1.5 times as fast.
#
# Long runs go 3 to 4.5 times as fast without AddressSanitizer:
#   make fuzz-build FUZZ_BUILD=build-fuzz-fast FUZZ_SANITIZERS=undefined
#   FUZZ_BUILD=build-fuzz-fast scripts/fuzz-long.sh TARGET
# UndefinedBehaviorSanitizer, the model's own checks (double frees, buffer
# overruns through skb_put/skb_push, dead buffers) and the harnesses'
# invariants still stop such a run; a stray read or write past a kmalloc
# block does not. Run the grown corpus through the ASan build afterwards:
#   build-fuzz/TARGET -runs=0 WORKDIR/TARGET
set -euo pipefail
target=${1:?usage: scripts/fuzz-long.sh TARGET [EXECUTIONS] [WORKDIR]}
runs=${2:-10000000}
work=${3:-/var/tmp/dnshook-fuzz}
root=$(cd "$(dirname "$0")/.." && pwd)
bin=${FUZZ_BUILD:-$root/build-fuzz}/$target
[ -x "$bin" ] || { echo "fuzz-long: $bin not built (run make fuzz-build)" >&2; exit 1; }
mkdir -p "$work/$target"
seeds=()
[ -d "$root/fuzz/corpus/$target" ] && seeds+=("$root/fuzz/corpus/$target")
export ASAN_OPTIONS=${ASAN_OPTIONS:-quarantine_size_mb=16}
# The tables' blocks are larger than glibc's mmap threshold: every load and
# unload of the filter would map, fault in and unmap them again, which made
# the loading harnesses spend half their time in the kernel. Keep them on the
# heap (no effect under AddressSanitizer, which has its own allocator).
export GLIBC_TUNABLES=${GLIBC_TUNABLES:-glibc.malloc.mmap_threshold=268435456:glibc.malloc.trim_threshold=1073741824}
echo "fuzz-long: $target, $runs executions, $(git -C "$root" rev-parse --short HEAD), $bin, ASAN_OPTIONS=$ASAN_OPTIONS GLIBC_TUNABLES=$GLIBC_TUNABLES"
exec "$bin" -runs="$runs" -max_len=2048 -timeout=10 -rss_limit_mb=4096 -print_final_stats=1 \
	-artifact_prefix="$work/$target-" "$work/$target" "${seeds[@]}"
