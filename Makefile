# Thin wrapper over CMake/CTest. Every target bootstraps first (fast when all is there).
BUILD ?= build
ASAN_BUILD ?= build-asan
JOBS ?= $(shell nproc)
CMAKE_FLAGS ?=

FUZZ_BUILD ?= build-fuzz
FUZZ_SECONDS ?= 60

.PHONY: soak fuzz all bootstrap build test test-unit test-sanitize bench package package-check demo format format-check clean

all: build

bootstrap:
	@bash scripts/bootstrap.sh

$(BUILD)/CMakeCache.txt: | bootstrap
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo $(CMAKE_FLAGS)

build: bootstrap $(BUILD)/CMakeCache.txt
	cmake --build $(BUILD) -j $(JOBS)

# Every test (unit and integration) through CTest.
test: build
	cd $(BUILD) && ctest --output-on-failure -j $(JOBS) --timeout 600

test-unit: build
	cd $(BUILD) && ctest --output-on-failure -j $(JOBS) -L unit

# Unit tests, and the integration tests labelled "sanitize", under AddressSanitizer +
# UndefinedBehaviorSanitizer.
test-sanitize: bootstrap
	cmake -S . -B $(ASAN_BUILD) -DCMAKE_BUILD_TYPE=Debug -DCAMFETCH_SANITIZE=ON -DCAMFETCH_BUILD_BENCH=OFF $(CMAKE_FLAGS)
	cmake --build $(ASAN_BUILD) -j $(JOBS)
	cd $(ASAN_BUILD) && ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
		ctest --output-on-failure -j $(JOBS) -L 'unit|sanitize'

# The reconnect soak in its long form (the short form runs with every `make test`).
SOAK_SECONDS ?= 600
soak: build
	CAMFETCH_SOAK_SECONDS=$(SOAK_SECONDS) $(BUILD)/tests/camfetch_soak

# The embedded sample camera, fetched through the library into ./camfetch-demo/.
demo: build
	$(BUILD)/tools/camfetch/camfetch demo

# A .deb of the library, headers, tool and sample.
package: build
	cd $(BUILD) && cpack

# Install into a scratch prefix and build the example host against the installed package.
package-check: build
	rm -rf $(BUILD)/stage $(BUILD)/example
	cmake --install $(BUILD) --prefix $(CURDIR)/$(BUILD)/stage
	cmake -S examples -B $(BUILD)/example -DCMAKE_PREFIX_PATH=$(CURDIR)/$(BUILD)/stage
	cmake --build $(BUILD)/example
	$(BUILD)/stage/bin/camfetch --help > /dev/null

# Every libFuzzer target for FUZZ_SECONDS on a scratch copy of its seed corpus. A crash
# fails the target; its input is left in $(FUZZ_BUILD)/findings/ to become a regression case.
fuzz: bootstrap
	CC=clang CXX=clang++ cmake -S . -B $(FUZZ_BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCAMFETCH_FUZZ=ON $(CMAKE_FLAGS)
	cmake --build $(FUZZ_BUILD) -j $(JOBS)
	bash scripts/run_fuzzers.sh $(FUZZ_BUILD) $(FUZZ_SECONDS)

bench: build
	@for b in $(BUILD)/bench/bench_*; do echo "== $$b"; $$b; done

format:
	clang-format -i $$(git ls-files '*.cpp' '*.h')

format-check:
	clang-format --dry-run --Werror $$(git ls-files '*.cpp' '*.h')

clean:
	rm -rf $(BUILD) $(ASAN_BUILD)
