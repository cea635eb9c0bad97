# Thin wrapper over the CMake build.
BUILD ?= build
JOBS ?= $(shell nproc)
MAKEFLAGS += --no-print-directory
CTEST_ARGS ?= --output-on-failure -j$(JOBS)

.PHONY: all build configure test bootstrap demo node bench asan tsan format cppcheck clean cross size \
	fuzz fuzz-build fuzz-smoke

all: build

# Every target that builds first installs what is missing (scripts/bootstrap is quick and
# quiet when everything is there), so any first command works on a fresh machine.
configure: bootstrap
	@cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null

build: configure
	@cmake --build $(BUILD) -j$(JOBS)

bootstrap:
	@scripts/bootstrap

# Everything a newcomer needs, then the build, then every test.
test: build
	@cd $(BUILD) && ctest $(CTEST_ARGS)
	@if [ -n "$(FUZZ_CXX)" ]; then $(MAKE) fuzz-smoke; else echo "fuzz-smoke skipped: no clang"; fi

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

# libFuzzer targets (fuzz/), built with clang in build-fuzz/. `make fuzz` runs each for
# FUZZ_SECONDS, FUZZ_JOBS targets at a time; `make fuzz-smoke` runs each on its seed corpus
# plus a few thousand inputs.
FUZZ_BUILD ?= build-fuzz
FUZZ_SECONDS ?= 60
FUZZ_JOBS ?= 1
FUZZ_CXX ?= $(shell command -v clang++-14 || command -v clang++)
FUZZ_CC ?= $(shell command -v clang-14 || command -v clang)

fuzz-build: bootstrap
	@cmake -S . -B $(FUZZ_BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZORMESH_FUZZ=ON \
	  -DCMAKE_C_COMPILER=$(FUZZ_CC) -DCMAKE_CXX_COMPILER=$(FUZZ_CXX) >/dev/null
	@cmake --build $(FUZZ_BUILD) -j$(JOBS)

fuzz: fuzz-build
	@scripts/fuzz run $(FUZZ_BUILD) $(FUZZ_SECONDS) $(FUZZ_JOBS)

fuzz-smoke: fuzz-build
	@scripts/fuzz smoke $(FUZZ_BUILD) $(JOBS)

asan: bootstrap
	@cmake -S . -B build-asan -DCMAKE_BUILD_TYPE=Debug -DZORMESH_SANITIZE=address,undefined >/dev/null
	@cmake --build build-asan -j$(JOBS)
	@cd build-asan && ctest $(CTEST_ARGS)

tsan: bootstrap
	@cmake -S . -B build-tsan -DCMAKE_BUILD_TYPE=Debug -DZORMESH_SANITIZE=thread >/dev/null
	@cmake --build build-tsan -j$(JOBS)
	@cd build-tsan && ctest $(CTEST_ARGS)

format: bootstrap
	@git ls-files '*.cpp' '*.h' | xargs clang-format -i

cppcheck: bootstrap
	@cppcheck --quiet --std=c++17 --enable=warning,performance,portability \
	  --inline-suppr --error-exitcode=1 -I src src tools sim

# The ARM build and every test under qemu-user: make cross ARCH=armhf|aarch64 (build-ARCH/).
ARCH ?= armhf
CROSS_ARCHS := armhf aarch64
cross:
	@case " $(CROSS_ARCHS) " in *" $(ARCH) "*) ;; \
	  *) echo "make cross: ARCH must be one of: $(CROSS_ARCHS)" >&2; exit 2;; esac
	@scripts/bootstrap --cross $(ARCH)
	@cmake -S . -B build-$(ARCH) -DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/$(ARCH).cmake \
	  -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
	@cmake --build build-$(ARCH) -j$(JOBS)
	@cd build-$(ARCH) && ctest $(CTEST_ARGS)

# The daemon's stripped size per architecture, built with -Os (build-size-ARCH/).
SIZE_ARCHS ?= native armhf aarch64
size:
	@JOBS=$(JOBS) scripts/size $(SIZE_ARCHS)

clean:
	@rm -rf $(BUILD) build-asan build-tsan build-size-* $(FUZZ_BUILD)
