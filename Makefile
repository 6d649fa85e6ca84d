# Front door. `sudo make run` and `sudo make check` are all a fresh Debian 12 machine needs.
JOBS      ?= $(shell nproc)
BUILD     ?= build
ASAN_BUILD = build-asan
TSAN_BUILD = build-tsan
CONFIG    ?= config/agent.json

CMAKE_COMMON = -DCMAKE_BUILD_TYPE=Release

.PHONY: all deps build run check test test-asan test-tsan demo format clean

all: build

deps:
	@bash scripts/install-deps.sh

build: deps
	cmake -S . -B $(BUILD) $(CMAKE_COMMON) -DHOSTAGENT_BUILD_TESTS=ON
	cmake --build $(BUILD) -j$(JOBS)

run: build
	$(BUILD)/bin/hostagent --config $(CONFIG)

# Every test, then the unit tests again under AddressSanitizer + UndefinedBehaviorSanitizer, then
# the concurrency stress tests under ThreadSanitizer.
check: build
	cd $(BUILD) && ctest --output-on-failure --timeout 600
	$(MAKE) test-asan test-tsan

test-asan:
	cmake -S . -B $(ASAN_BUILD) -DCMAKE_BUILD_TYPE=Debug -DHOSTAGENT_SANITIZE=address,undefined \
	      -DHOSTAGENT_BUILD_BENCH=OFF
	cmake --build $(ASAN_BUILD) -j$(JOBS)
	cd $(ASAN_BUILD) && ctest --output-on-failure -L unit

test-tsan:
	cmake -S . -B $(TSAN_BUILD) -DCMAKE_BUILD_TYPE=Debug -DHOSTAGENT_SANITIZE=thread \
	      -DHOSTAGENT_BUILD_BENCH=OFF
	cmake --build $(TSAN_BUILD) -j$(JOBS) --target tsan_tests
	cd $(TSAN_BUILD) && ctest --output-on-failure -L tsan

# A two-namespace lab: the agent watches one host while nmap scans it from the other.
demo: build
	BUILD=$(BUILD) bash scripts/demo.sh

format:
	find sdk framework builtin_tasks module_portscan agent tests bench -name '*.cpp' -o -name '*.h' \
	  | xargs clang-format -i

clean:
	rm -rf $(BUILD) $(ASAN_BUILD) $(TSAN_BUILD)
