#!/usr/bin/env bash
# Builds the whole suite a second time under AddressSanitizer and
# UndefinedBehaviorSanitizer (tree $1, default build-asan) and runs it with
# leak checking on. scripts/lsan.supp names the only allocations the
# filter may keep; any other leak, and any sanitizer report, fails.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
tree=${1:-$root/build-asan}
jobs=${2:-$(nproc)}
cmake -S "$root" -B "$tree" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DDNSHOOK_SANITIZE=ON >/dev/null
cmake --build "$tree" -j "$jobs"
export ASAN_OPTIONS=detect_leaks=1:strict_string_checks=1:detect_stack_use_after_return=1
export LSAN_OPTIONS=suppressions=$root/scripts/lsan.supp:print_suppressions=0
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
cd "$tree" && ctest --output-on-failure --timeout 300 -j "$jobs"
