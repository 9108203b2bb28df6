# The two entry points: `make demo` and `make test`. Both install what is
# missing, configure and build.
BUILD ?= build
FUZZ_BUILD ?= build-fuzz
JOBS ?= $(shell nproc)
FUZZ_SECONDS ?= 5
FUZZ_SANITIZERS ?= address,undefined
ASAN_BUILD ?= build-asan
MIPS_BUILD ?= build-mipsel

.PHONY: all deps build fuzz-build demo test bench clean

all: build

deps:
	@scripts/deps.sh

build: deps
	@cmake -S . -B $(BUILD) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
		-DDNSHOOK_FUZZ_DIR=$(abspath $(FUZZ_BUILD)) -DDNSHOOK_FUZZ_SECONDS=$(FUZZ_SECONDS) >/dev/null
	@cmake --build $(BUILD) -j $(JOBS)

fuzz-build: deps
	@CXX=clang++-14 CC=clang-14 cmake -S . -B $(FUZZ_BUILD) -G Ninja \
		-DCMAKE_BUILD_TYPE=RelWithDebInfo -DDNSHOOK_FUZZERS=ON \
		-DDNSHOOK_FUZZ_SANITIZERS=$(FUZZ_SANITIZERS) >/dev/null
	@cmake --build $(FUZZ_BUILD) -j $(JOBS)

demo: build
	@scripts/demo.sh $(BUILD)

test: build fuzz-build
	@cd $(BUILD) && ctest --output-on-failure --timeout 300 -j $(JOBS)
	@scripts/test-asan.sh $(abspath $(ASAN_BUILD)) $(JOBS)
	@scripts/test-mipsel.sh $(abspath $(MIPS_BUILD)) $(JOBS)

bench: build
	@scripts/bench.sh $(BUILD)
	@for b in $(BUILD)/bench/bench_*; do [ "$${b##*/}" != bench_packet_path ] && [ -x "$$b" ] && "$$b"; done; true

clean:
	rm -rf $(BUILD) $(FUZZ_BUILD) $(ASAN_BUILD) $(MIPS_BUILD)
