# The two commands of the README: `make run` and `make test`. Both install what they need first.
# `make package` makes the Debian packages; `make install-test` installs them on a fresh Debian 12 and tries them.
BUILD_DIR ?= build
BUILD_TYPE ?= RelWithDebInfo
JOBS ?= $(shell nproc)

.PHONY: all deps configure build run test bench package install-test clean

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
