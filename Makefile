# Two commands matter: `make run` starts Vistrel, `make test` builds everything and runs the tests.
# Both install what they need first.

JOBS ?= $(shell nproc 2>/dev/null || sysctl -n hw.ncpu 2>/dev/null || echo 2)
BENCH ?=
FUZZ_SECONDS ?= 60

.PHONY: all deps build run test test-dev test-asan format-check format bench fuzz package package-test clean

all: build

deps:
	@scripts/install-deps

# The release build alone.
build: deps
	@cmake --preset release >/dev/null
	@cmake --build --preset release -j $(JOBS)

run: build
	./build/release/src/vistrel

# Warnings are errors in every preset; the core tests also run under the sanitizers.
test: deps format-check test-dev test-asan

test-dev:
	@cmake --preset dev >/dev/null
	@cmake --build --preset dev -j $(JOBS)
	@ctest --preset dev -j $(JOBS)

test-asan:
	@cmake --preset asan >/dev/null
	@cmake --build --preset asan -j $(JOBS)
	@ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 ctest --preset asan -j $(JOBS) -L 'base|format|sampling|processes|history|alerts|agents|control|app'

format-check:
	@files=$$(git ls-files '*.cpp' '*.hpp' '*.mm' 2>/dev/null); \
	if [ -n "$$files" ]; then clang-format --dry-run --Werror $$files; fi

format:
	@git ls-files '*.cpp' '*.hpp' '*.mm' | xargs clang-format -i

# `make bench` runs every benchmark; `make bench BENCH=tick_cost` runs one.
bench: build
	@set -e; for b in build/release/bench/bench_*; do \
	  name=$${b##*/bench_}; \
	  if [ -z "$(BENCH)" ] || [ "$(BENCH)" = "$$name" ]; then echo "== $$name"; "$$b"; fi; \
	done

# Builds the libFuzzer targets with clang and runs each for FUZZ_SECONDS.
fuzz:
	@cmake --preset fuzz >/dev/null
	@cmake --build --preset fuzz -j $(JOBS)
	@set -e; for f in build/fuzz/fuzz/fuzz_*; do \
	  echo "== $${f##*/}"; mkdir -p build/fuzz/corpus/$${f##*/}; \
	  "$$f" -max_total_time=$(FUZZ_SECONDS) -print_final_stats=1 build/fuzz/corpus/$${f##*/}; \
	done

# The platform's package in build/package/packages: the .deb packages on Linux (vistrel, and
# vistrel-ui once the build has a user interface), a disk image holding Vistrel.app on macOS.
# PACKAGE_FLAGS passes more settings to CMake, say the update feed and key of a macOS release.
PACKAGE_FLAGS ?=
package: deps
	@cmake -S . -B build/package -G Ninja -DCMAKE_BUILD_TYPE=Release -DVISTREL_TESTS=OFF \
	  -DVISTREL_BENCH=OFF -DVISTREL_PACKAGE_TESTS=ON $(PACKAGE_FLAGS) >/dev/null
	@cmake --build build/package -j $(JOBS)
	@rm -rf build/package/packages
	@cd build/package && cpack
	@ls -l build/package/packages/*.*

# Unpacks the packages into a temporary root and runs what they installed (Linux).
package-test: package
	@ctest --test-dir build/package -L package --output-on-failure

clean:
	rm -rf build
