# The one way to build and test. Every target installs what is missing first.
BUILD ?= build
JOBS ?= 2
# make demo WATCH=1: the demo waits for Enter before the push and before stopping.
WATCH ?=
CMAKE_FLAGS ?=

.PHONY: deps build test demo demo-panel bench asan tsan test-arm bench-arm clean

deps:
	@bash scripts/install-deps.sh

build: deps
	@cmake -S . -B $(BUILD) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo $(CMAKE_FLAGS) >/dev/null
	@cmake --build $(BUILD) -j$(JOBS)

test: build
	@ctest --test-dir $(BUILD) --output-on-failure -j$(JOBS)

# The demos need their programs only, not the whole tree of tests and benchmarks.
# demo: a fleet kept in sync through a broker; demo-panel: one panel driven by nkctl.
demo: deps
	@cmake -S . -B $(BUILD) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo $(CMAKE_FLAGS) >/dev/null
	@cmake --build $(BUILD) -j$(JOBS) --target nkstation nkdevice
	@NK_DEMO_WATCH=$(WATCH) python3 tools/fleet_demo.py $(BUILD)

demo-panel: deps
	@cmake -S . -B $(BUILD) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo $(CMAKE_FLAGS) >/dev/null
	@cmake --build $(BUILD) -j$(JOBS) --target nkctl nkdevice
	@bash tools/demo.sh $(BUILD)

bench: build
	@for b in $(BUILD)/bench/bench_*; do echo "== $$b"; $$b; done

# The tests under AddressSanitizer and UndefinedBehaviorSanitizer.
asan: deps
	@cmake -S . -B build-asan -G Ninja -DCMAKE_BUILD_TYPE=Debug -DNK_SANITIZE=address,undefined \
	  -DNK_BUILD_BENCH=OFF -DNK_BUILD_EXAMPLES=OFF $(CMAKE_FLAGS) >/dev/null
	@cmake --build build-asan -j$(JOBS)
	@ctest --test-dir build-asan --output-on-failure -j$(JOBS)

# The concurrency tests under ThreadSanitizer.
tsan: deps
	@cmake -S . -B build-tsan -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DNK_SANITIZE=thread \
	  -DNK_BUILD_BENCH=OFF -DNK_BUILD_EXAMPLES=OFF -DNK_BUILD_TOOLS=OFF $(CMAKE_FLAGS) >/dev/null
	@cmake --build build-tsan -j$(JOBS)
	@ctest --test-dir build-tsan --output-on-failure -L concurrency -j$(JOBS)

# Cross build for 32-bit ARM Linux (armhf); CTest runs every test under qemu-arm.
ARM_BUILD ?= build-arm
test-arm:
	@bash scripts/install-deps.sh --arm
	@cmake -S . -B $(ARM_BUILD) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
	  -DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/arm-linux-gnueabihf.cmake $(CMAKE_FLAGS) >/dev/null
	@cmake --build $(ARM_BUILD) -j$(JOBS)
	@ctest --test-dir $(ARM_BUILD) --output-on-failure -j$(JOBS)

# The benchmarks of the ARM build, emulated: a sanity check, not a measurement of a device.
# The 32 and 64 MiB cases are left out; under qemu they take minutes and show nothing more.
bench-arm: test-arm
	@for b in $(ARM_BUILD)/bench/bench_*; do echo "== $$b (qemu-arm)"; \
	  qemu-arm $$b --benchmark_filter='-(64MiB|67108864|32MiB|33554432)' --benchmark_min_time=0.05; done

clean:
	@rm -rf $(BUILD) build-asan build-tsan $(ARM_BUILD)
