# Everything from a fresh clone: `make demo` runs the main job, `make check` runs all tests.
JOBS ?= $(shell nproc)
CMAKE ?= cmake
CTEST ?= ctest
FUZZ_SECONDS ?= 60

.PHONY: all deps build demo check check-layers check-format test test-asan test-tsan check-locks \
	soak fuzz fuzz-build fuzz-replay bench format install package check-package clean

# Where `make install` and the package put the tree.
PREFIX ?= /usr
# The folders of C++ code that clang-format keeps in shape (those that exist).
FORMAT_DIRS := $(wildcard host driver module config log analysis ssl agent fuzz tests bench)

all: build

deps:
	@bash scripts/install-deps.sh

build/CMakeCache.txt: | deps
	$(CMAKE) -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_INSTALL_PREFIX=$(PREFIX)

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

# Only the programs that exercise threads are built and run under ThreadSanitizer,
# with its lock-order check on. tests/tsan.supp names the one report that is
# the toolkit's own and nothing broader.
THREAD_TESTS := $(basename $(notdir $(wildcard tests/*/*Threads_test.cpp)))
TSAN_OPTIONS := halt_on_error=1:detect_deadlocks=1:second_deadlock_stack=1:suppressions=$(CURDIR)/tests/tsan.supp

test-tsan: deps build-tsan/CMakeCache.txt
	$(if $(THREAD_TESTS),$(CMAKE) --build build-tsan -j $(JOBS) --target $(THREAD_TESTS))
	$(if $(THREAD_TESTS),cd build-tsan && TSAN_OPTIONS=$(TSAN_OPTIONS) \
		$(CTEST) --output-on-failure -j $(JOBS) -L threads)

# Clang's thread-safety analysis of the lock annotations, as errors. Only the
# libraries are built: the tests add nothing to check and would cost time.
build-clang/CMakeCache.txt: | deps
	CC=clang CXX=clang++ $(CMAKE) -S . -B build-clang -DCMAKE_BUILD_TYPE=Debug

check-locks: deps build-clang/CMakeCache.txt
	$(CMAKE) --build build-clang -j $(JOBS) --target norvcore norv vexil

check: check-layers check-format test test-asan test-tsan check-locks fuzz-replay

# The SSL service under a long load: the soak program with its full count.
# The error lines of the requests that fail by design go to build/soak.log.
soak: build
	cd build && VEXIL_SOAK_REQUESTS=100000 ./SSLSoakThreads_test 2>soak.log

check-layers:
	@bash scripts/check-layers.sh

check-format:
	@find $(FORMAT_DIRS) -name '*.cpp' -o -name '*.h' | xargs clang-format --dry-run -Werror

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


bench: deps
	$(CMAKE) -S . -B build-bench -DCMAKE_BUILD_TYPE=Release -DVEXIL_BENCH=ON
	$(CMAKE) --build build-bench -j $(JOBS) --target vexil_bench
	cd build-bench && ./vexil_bench

format:
	find $(FORMAT_DIRS) -name '*.cpp' -o -name '*.h' | xargs clang-format -i

install: build
	$(CMAKE) --install build --prefix $(PREFIX)

# The Debian package, from a build of the libraries alone (no tests).
build-pkg/CMakeCache.txt: | deps
	$(CMAKE) -S . -B build-pkg -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_INSTALL_PREFIX=/usr \
		-DBUILD_TESTING=OFF

package: deps build-pkg/CMakeCache.txt
	$(CMAKE) --build build-pkg -j $(JOBS)
	cd build-pkg && cpack -G DEB

# Unpacks the package into a scratch root and loads the modules from there
# (VEXIL_PACKAGE_INSTALL=1, as root: also installs it for real and removes it).
check-package: package
	bash scripts/check-package.sh build-pkg/vexil_*.deb

clean:
	rm -rf build build-asan build-tsan build-clang build-bench build-pkg build-fuzz
