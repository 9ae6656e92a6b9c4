# The two commands of the README: `make run` and `make test`. Both install what they need first.
# `make package` makes the Debian packages; `make install-test` installs them on a fresh Debian 12 and tries them.
BUILD_DIR ?= build
BUILD_TYPE ?= RelWithDebInfo
JOBS ?= $(shell nproc)

.PHONY: all deps configure build run test bench package install-test clean test-asan test-tsan fuzz

all: build

deps:
	@scripts/install-deps.sh

configure: deps
	@cmake -S . -B $(BUILD_DIR) -G Ninja -DCMAKE_BUILD_TYPE=$(BUILD_TYPE) >/dev/null

build: configure
	@cmake --build $(BUILD_DIR) -j $(JOBS)

run: build
	$(BUILD_DIR)/src/sprelio $(ARGS)

test: build
	@cd $(BUILD_DIR) && ctest --output-on-failure -j $(JOBS)

# The whole suite again under AddressSanitizer and UndefinedBehaviorSanitizer, in a build directory of its own (gcc).
# Any report fails the test it happens in: UBSan does not recover, LSan reports leaks at exit. Leaks of system
# libraries are suppressed in tests/sanitizers/lsan.supp, each with its reason; never our own code. The runtime
# options are compiled into every executable (tests/sanitizers/SanitizerDefaults.cpp), because the tests start
# sprelio and sprelio-server with environments of their own. Warnings are not errors here: gcc's instrumentation
# makes -Wnull-dereference and -Wmaybe-uninitialized see paths that the normal build does not have.
SANITIZER_FLAGS = -fno-omit-frame-pointer
# Line tables are all a sanitizer report needs; full debug info and -O2 only make the build slower (CI builds this
# from nothing every time).
SANITIZER_BUILD_FLAGS = -DCMAKE_CXX_FLAGS_RELWITHDEBINFO="-O1 -g1 -DNDEBUG"
SANITIZER_DEFAULTS = -DSPRELIO_SANITIZER_DIR='"$(CURDIR)/tests/sanitizers"' tests/sanitizers/SanitizerDefaults.cpp
SANITIZER_ENV = LSAN_OPTIONS=suppressions=$(CURDIR)/tests/sanitizers/lsan.supp:print_suppressions=0 \
	UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
test-asan: deps
	@mkdir -p build-asan && g++ -c -O1 $(SANITIZER_DEFAULTS) -o build-asan/sanitizer-defaults.o
	@cmake -S . -B build-asan -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo $(SANITIZER_BUILD_FLAGS) -DSPRELIO_WERROR=OFF -DSPRELIO_BUILD_BENCH=OFF \
	  -DCMAKE_CXX_FLAGS="$(SANITIZER_FLAGS) -fsanitize=address,undefined -fno-sanitize-recover=undefined" \
	  -DCMAKE_EXE_LINKER_FLAGS="$(CURDIR)/build-asan/sanitizer-defaults.o" >/dev/null
	@cmake --build build-asan -j $(JOBS)
	@cd build-asan && ctest --output-on-failure -j $(JOBS)

# ThreadSanitizer over the four suites whose code runs threads of its own, every test in them: the log writer
# (diagnostics), the libcurl thread and the live stream (backend), the PulseAudio adapters (audio) and the server's
# epoll gate and worker pool (server). The others are never built here, hence the exclusion.
TSAN_SUITES = test_diagnostics test_backend test_audio test_server
test-tsan: deps
	@mkdir -p build-tsan && g++ -c -O1 $(SANITIZER_DEFAULTS) -o build-tsan/sanitizer-defaults.o
	@cmake -S . -B build-tsan -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo $(SANITIZER_BUILD_FLAGS) -DSPRELIO_WERROR=OFF -DSPRELIO_BUILD_BENCH=OFF \
	  -DCMAKE_CXX_FLAGS="$(SANITIZER_FLAGS) -fsanitize=thread" \
	  -DCMAKE_EXE_LINKER_FLAGS="$(CURDIR)/build-tsan/sanitizer-defaults.o" >/dev/null
	@cmake --build build-tsan -j $(JOBS) --target $(TSAN_SUITES)
	@cd build-tsan && ctest --output-on-failure -j $(JOBS) -E '_NOT_BUILT$$'

# libFuzzer targets of every parser of outside bytes, built with clang in their own directory, each run for
# FUZZ_SECONDS on its seed corpus (tests/fuzz/corpus/<target>); what they find lands in build-fuzz/findings.
FUZZ_SECONDS ?= 60
# Empty: random choices, a new exploration each run. A number: the same choices each run (CI).
FUZZ_SEED ?=
fuzz: deps
	@cmake -S . -B build-fuzz -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo $(SANITIZER_BUILD_FLAGS) -DSPRELIO_WERROR=OFF -DSPRELIO_BUILD_BENCH=OFF \
	  -DSPRELIO_BUILD_TESTS=OFF -DSPRELIO_FUZZ=ON -DCMAKE_CXX_COMPILER=clang++-14 \
	  -DCMAKE_CXX_FLAGS="$(SANITIZER_FLAGS) -fsanitize=address,undefined,fuzzer-no-link -fno-sanitize-recover=undefined" >/dev/null
	@cmake --build build-fuzz -j $(JOBS) --target sprelio_fuzzers
	@$(SANITIZER_ENV) FUZZ_SEED=$(FUZZ_SEED) tests/fuzz/run-fuzzers.sh build-fuzz $(FUZZ_SECONDS)

bench: build
	@for b in $(BUILD_DIR)/bench/bench_*; do echo "== $$b"; $$b; done

# The packages install under /usr, and the program looks for its sounds under the prefix it was built with, so the
# build is configured with that prefix. Only what the packages hold is built; lintian and the freedesktop
# validators then check the result.
package: deps
	@cmake -S . -B $(BUILD_DIR) -G Ninja -DCMAKE_BUILD_TYPE=$(BUILD_TYPE) -DCMAKE_INSTALL_PREFIX=/usr >/dev/null
	@cmake --build $(BUILD_DIR) -j $(JOBS) --target sprelio sprelio-server sprelio_package_data
	@rm -f $(BUILD_DIR)/packages/*.deb
	@cd $(BUILD_DIR) && cpack --config CPackConfig.cmake
	@packaging/check-packages.sh $(BUILD_DIR)/packages

# Minutes, not seconds (a Debian root is made and the dependencies are fetched), so not part of `make test`.
install-test: package
	@packaging/install-test.sh $(BUILD_DIR)/packages $(BUILD_DIR)/install-test

clean:
	rm -rf $(BUILD_DIR)
