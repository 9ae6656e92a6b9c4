# The two commands of the README: `make run` and `make test`. Both install what they need first.
BUILD_DIR ?= build
BUILD_TYPE ?= RelWithDebInfo
JOBS ?= $(shell nproc)

.PHONY: all deps configure build run test bench clean

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

bench: build
	@for b in $(BUILD_DIR)/bench/bench_*; do echo "== $$b"; $$b; done

clean:
	rm -rf $(BUILD_DIR)
