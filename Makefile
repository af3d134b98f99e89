# Everything from a fresh clone: `make demo` runs the main job, `make check` runs all tests.
JOBS ?= $(shell nproc)
CMAKE ?= cmake
CTEST ?= ctest

.PHONY: all deps build demo check test test-asan test-tsan bench format clean

all: build

deps:
	@bash scripts/install-deps.sh

build/CMakeCache.txt: | deps
	$(CMAKE) -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo

build: deps build/CMakeCache.txt
	$(CMAKE) --build build -j $(JOBS)

demo: build
	bash scripts/demo.sh $(CURDIR)/build

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

check: test test-asan test-tsan

bench: deps
	$(CMAKE) -S . -B build-bench -DCMAKE_BUILD_TYPE=Release -DVEXIL_BENCH=ON
	$(CMAKE) --build build-bench -j $(JOBS) --target vexil_bench
	cd build-bench && ./vexil_bench

format:
	find host driver module config log analysis ssl tests bench examples agent \
		-name '*.cpp' -o -name '*.h' | xargs clang-format -i

clean:
	rm -rf build build-asan build-tsan build-bench
