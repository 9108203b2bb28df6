#!/usr/bin/env bash
# Cross-builds the filter, the kernel model, the simulated router and the
# unit and scenario tests for 32-bit little-endian MIPS (the router's CPU)
# in tree $1 (default build-mipsel), GoogleTest included from Debian's
# source package, and runs them under qemu user-mode emulation.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
tree=${1:-$root/build-mipsel}
jobs=${2:-$(nproc)}
toolchain=$root/cmake/mipsel.cmake
gtest=$tree/gtest

for tool in mipsel-linux-gnu-g++ qemu-mipsel; do
	command -v "$tool" >/dev/null || { echo "test-mipsel: $tool missing (scripts/deps.sh installs it)" >&2; exit 1; }
done
[ -f /usr/src/googletest/CMakeLists.txt ] ||
	{ echo "test-mipsel: /usr/src/googletest missing (package googletest)" >&2; exit 1; }

if [ ! -f "$gtest/lib/libgtest.a" ]; then
	cmake -S /usr/src/googletest -B "$tree/gtest-build" -G Ninja -DCMAKE_BUILD_TYPE=Release \
		-DCMAKE_TOOLCHAIN_FILE="$toolchain" -DCMAKE_INSTALL_PREFIX="$gtest" >/dev/null
	cmake --build "$tree/gtest-build" -j "$jobs" >/dev/null
	cmake --install "$tree/gtest-build" >/dev/null
fi

cmake -S "$root" -B "$tree" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
	-DCMAKE_TOOLCHAIN_FILE="$toolchain" -DDNSHOOK_HOSTS=OFF \
	-DGTest_DIR="$gtest/lib/cmake/GTest" >/dev/null
cmake --build "$tree" -j "$jobs"
cd "$tree" && ctest --output-on-failure --timeout 600 -j "$jobs"
