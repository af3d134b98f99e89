# Everything from a fresh clone: `make demo` runs the main job, `make check` runs all tests.
JOBS ?= $(shell nproc)
CMAKE ?= cmake
CTEST ?= ctest
FUZZ_SECONDS ?= 60

.PHONY: all deps build demo check test test-asan test-tsan fuzz fuzz-build fuzz-replay bench format clean

all: build

deps:
	@bash scripts/install-deps.sh

build/CMakeCache.txt: | deps
	$(CMAKE) -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo

build: deps build/CMakeCache.txt
	$(CMAKE) --build build -j $(JOBS)

demo: build
	cd build && LUA_CPATH="$(CURDIR)/build/?.so;;" lua5.2 $(CURDIR)/examples/agent.lua

test: build
	cd build && $(CTEST) --output-on-failure -j $(JOBS)

build-asan/CMakeCache.txt: | deps
	$(CMAKE) -S . -B build-asan -DCMAKE_BUILD_TYPE=Debug -DVEXIL_SANITIZE=ON

test-asan: deps build-asan/CMakeCache.txt
	$(CMAKE) --build build-asan -j $(JOBS)
	cd build-asan && ASAN_OPTIONS=detect_leaks=1:abort_on_error=0 \
		UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
		$(CTEST) --output-on-failure -j $(JOBS)

build-tsan/CMakeCache.txt: | deps
	$(CMAKE) -S . -B build-tsan -DCMAKE_BUILD_TYPE=Debug -DVEXIL_TSAN=ON

# Only the programs that exercise threads are built and run under ThreadSanitizer.
# Lock-order checking is off: the toolkit's internal mutex gives a false report.
THREAD_TESTS := $(basename $(notdir $(wildcard tests/*/*Threads_test.cpp)))

test-tsan: deps build-tsan/CMakeCache.txt
	$(if $(THREAD_TESTS),$(CMAKE) --build build-tsan -j $(JOBS) --target $(THREAD_TESTS))
	$(if $(THREAD_TESTS),cd build-tsan && TSAN_OPTIONS=halt_on_error=1:detect_deadlocks=0 \
		$(CTEST) --output-on-failure -j $(JOBS) -L threads)

# libFuzzer harnesses (fuzz/), built by clang with AddressSanitizer and
# UndefinedBehaviorSanitizer. `make fuzz` runs each for FUZZ_SECONDS and fails
# on any finding; `make fuzz-replay` (part of check) runs every seed once.
build-fuzz/CMakeCache.txt: | deps
	$(CMAKE) -S . -B build-fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVEXIL_FUZZ=ON \
		-DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++

fuzz-build: deps build-fuzz/CMakeCache.txt
	$(CMAKE) --build build-fuzz -j $(JOBS)

fuzz: fuzz-build
	FUZZ_SECONDS=$(FUZZ_SECONDS) bash scripts/run-fuzz.sh build-fuzz

fuzz-replay: fuzz-build
	cd build-fuzz && $(CTEST) --output-on-failure -j $(JOBS) -L fuzz

check: test test-asan test-tsan fuzz-replay

bench: deps
	$(CMAKE) -S . -B build-bench -DCMAKE_BUILD_TYPE=Release -DVEXIL_BENCH=ON
	$(CMAKE) --build build-bench -j $(JOBS) --target vexil_bench
	cd build-bench && ./vexil_bench

format:
	find host driver module config log analysis ssl tests bench examples fuzz \
		-name '*.cpp' -o -name '*.h' | xargs clang-format -i

clean:
	rm -rf build build-asan build-tsan build-bench build-fuzz
