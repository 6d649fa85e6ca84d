# Front door. `sudo make run` and `sudo make check` are all a fresh Debian 12 machine needs.
JOBS      ?= $(shell nproc)
BUILD     ?= build
ASAN_BUILD = build-asan
TSAN_BUILD = build-tsan
FUZZ_BUILD = build-fuzz
# Seconds each fuzz target runs in `make fuzz`.
FUZZ_SECONDS ?= 60
CONFIG    ?= config/agent.json

# The install layout is a Debian package's (/usr/sbin, /usr/lib/hostagent), also in build folders
# configured before it was the default.
CMAKE_COMMON = -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX=/usr
# What the package holds; built alone so that `make package` needs no test build.
PACKAGE_TARGETS = hostagent portscan_module packaging_docs

# Recipes pipe ctest through tee: a failing test must still fail the recipe.
SHELL := /bin/bash
.SHELLFLAGS := -o pipefail -c

.PHONY: all deps build run check test test-asan test-tsan fuzz fuzz-build fuzz-smoke bench bench-collector demo format clean install package

all: build

deps:
	@bash scripts/install-deps.sh

build: deps
	cmake -S . -B $(BUILD) $(CMAKE_COMMON) -DHOSTAGENT_BUILD_TESTS=ON
	cmake --build $(BUILD) -j$(JOBS)

# The agent, its libraries, the module, config, unit, rotation and man page under DESTDIR (default /).
install: deps
	cmake -S . -B $(BUILD) $(CMAKE_COMMON)
	cmake --build $(BUILD) -j$(JOBS) --target $(PACKAGE_TARGETS)
	DESTDIR=$(DESTDIR) cmake --install $(BUILD)

# $(BUILD)/hostagent_<version>_<arch>.deb
package: deps
	cmake -S . -B $(BUILD) $(CMAKE_COMMON)
	cmake --build $(BUILD) -j$(JOBS) --target $(PACKAGE_TARGETS)
	cd $(BUILD) && cpack -G DEB

run: build
	$(BUILD)/bin/hostagent --config $(CONFIG)

# Every test, then the unit tests again under AddressSanitizer + UndefinedBehaviorSanitizer, the
# concurrency stress tests under ThreadSanitizer, and a few seconds of every fuzz target.
check: build
	@bash scripts/install-test-data.sh
	cd $(BUILD) && ctest --output-on-failure --timeout 600 -j2 | tee ctest.log
	$(MAKE) test-asan test-tsan fuzz-smoke
	@cat $(BUILD)/ctest.log $(ASAN_BUILD)/ctest.log $(TSAN_BUILD)/ctest.log $(FUZZ_BUILD)/ctest.log \
	  | awk '/tests passed, [0-9]+ tests failed out of/ { failed += $$4; total += $$NF } \
	         END { printf "check: %d passed, %d failed\n", total - failed, failed }'

test-asan:
	cmake -S . -B $(ASAN_BUILD) -DCMAKE_BUILD_TYPE=Debug -DHOSTAGENT_SANITIZE=address,undefined \
	      -DHOSTAGENT_BUILD_BENCH=OFF
	cmake --build $(ASAN_BUILD) -j$(JOBS)
	cd $(ASAN_BUILD) && ctest --output-on-failure -L unit | tee ctest.log

test-tsan:
	cmake -S . -B $(TSAN_BUILD) -DCMAKE_BUILD_TYPE=Debug -DHOSTAGENT_SANITIZE=thread \
	      -DHOSTAGENT_BUILD_BENCH=OFF
	cmake --build $(TSAN_BUILD) -j$(JOBS) --target tsan_tests
	cd $(TSAN_BUILD) && ctest --output-on-failure -L tsan | tee ctest.log

# The fuzz targets (clang, libFuzzer, ASan + UBSan) in their own build folder.
fuzz-build: deps
	cmake -S . -B $(FUZZ_BUILD) -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
	      -DCMAKE_BUILD_TYPE=RelWithDebInfo -DHOSTAGENT_BUILD_FUZZ=ON -DHOSTAGENT_SANITIZE=address,undefined \
	      -DHOSTAGENT_BUILD_TESTS=OFF -DHOSTAGENT_BUILD_BENCH=OFF
	cmake --build $(FUZZ_BUILD) -j$(JOBS) --target fuzz_targets

# Each fuzz target for FUZZ_SECONDS, one after the other; prints each one's executions.
fuzz: fuzz-build
	bash scripts/fuzz.sh $(FUZZ_BUILD) $(FUZZ_SECONDS)

# A few seconds of each fuzz target over its seeds (ctest label "fuzz").
fuzz-smoke: fuzz-build
	cd $(FUZZ_BUILD) && ctest --output-on-failure -L fuzz | tee ctest.log

# CPU, wake-ups, memory and instructions per probe of the agent under load (root; not run by CI).
bench: build
	BUILD=$(BUILD) bash scripts/bench.sh

# Alarms per second through rsyslog into PostgreSQL with the shipped collector files (root; not run by CI).
bench-collector: deps
	bash scripts/bench-collector.sh

# A two-namespace lab: the agent watches one host while nmap scans it from the other.
demo: build
	BUILD=$(BUILD) bash scripts/demo.sh

format:
	find sdk framework builtin_tasks module_portscan agent tests bench fuzz -name '*.cpp' -o -name '*.h' \
	  | xargs clang-format -i

clean:
	rm -rf $(BUILD) $(ASAN_BUILD) $(TSAN_BUILD) $(FUZZ_BUILD)
