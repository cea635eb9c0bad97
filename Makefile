# Thin wrapper over the CMake build.
BUILD ?= build
JOBS ?= $(shell nproc)
MAKEFLAGS += --no-print-directory
CTEST_ARGS ?= --output-on-failure -j$(JOBS)

.PHONY: all build configure test bootstrap demo node bench asan tsan format cppcheck clean

all: build

configure:
	@cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null

build: configure
	@cmake --build $(BUILD) -j$(JOBS)

bootstrap:
	@scripts/bootstrap

# Everything a newcomer needs, then the build, then every test.
test: bootstrap build
	@cd $(BUILD) && ctest $(CTEST_ARGS)

demo: build
	@scripts/demo $(BUILD)

# One emulated node with the test emulator, in this terminal (Ctrl-C stops both).
ROOT ?= /tmp/zormesh-node
SCALE ?= 1
node: build
	@ROOT=$(ROOT) SCALE=$(SCALE) sim/run-node $(BUILD)

bench: build
	@for b in $(BUILD)/bench_*; do echo "== $$b"; $$b || exit 1; done
	@echo "== bench/mesh16"; bench/mesh16 $(BUILD)

asan:
	@cmake -S . -B build-asan -DCMAKE_BUILD_TYPE=Debug -DZORMESH_SANITIZE=address,undefined >/dev/null
	@cmake --build build-asan -j$(JOBS)
	@cd build-asan && ctest $(CTEST_ARGS)

tsan:
	@cmake -S . -B build-tsan -DCMAKE_BUILD_TYPE=Debug -DZORMESH_SANITIZE=thread >/dev/null
	@cmake --build build-tsan -j$(JOBS)
	@cd build-tsan && ctest $(CTEST_ARGS)

format:
	@git ls-files '*.cpp' '*.h' | xargs clang-format -i

cppcheck:
	@cppcheck --quiet --std=c++17 --enable=warning,performance,portability \
	  --inline-suppr --error-exitcode=1 -I src src tools sim

clean:
	@rm -rf $(BUILD) build-asan build-tsan
