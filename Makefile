# Two commands matter: `make run` starts Vistrel, `make test` builds everything and runs the tests.
# Both install what they need first.

JOBS ?= $(shell nproc 2>/dev/null || sysctl -n hw.ncpu 2>/dev/null || echo 2)
BENCH ?=
FUZZ_SECONDS ?= 60
SYSTEM := $(shell uname -s)
# One clang-format for everyone: versions disagree on details, and the tree is formatted with 14.
CLANG_FORMAT_VERSION := 14
CLANG_FORMAT ?= $(shell command -v clang-format-$(CLANG_FORMAT_VERSION) 2>/dev/null || command -v clang-format 2>/dev/null)
# Every build goes through ccache where there is one: the libc++ build compiles everything a
# second time, and a fresh checkout on a machine that built before compiles little.
# Paths inside the checkout are hashed relative to it, so another clone's objects are reused too.
export CCACHE_BASEDIR := $(CURDIR)
export CCACHE_NOHASHDIR := 1
CCACHE_LAUNCHER := $(shell command -v ccache >/dev/null 2>&1 && echo -DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
# LeakSanitizer exists on Linux only; asking for it on macOS makes every sanitized run abort.
ifeq ($(SYSTEM),Linux)
ASAN_OPTIONS_TEST := detect_leaks=1
else
ASAN_OPTIONS_TEST := detect_leaks=0
endif

.PHONY: all deps build run test test-dev test-asan test-libcxx portable-check format-check format bench fuzz shots shots-only package package-test clean

all: build

deps:
	@scripts/install-deps

# The release build alone.
build: deps
	@cmake --preset release $(CCACHE_LAUNCHER) >/dev/null
	@cmake --build --preset release -j $(JOBS)

run: build
	./build/release/src/vistrel

# Warnings are errors in every preset; the core tests also run under the sanitizers, and on Linux
# everything is compiled once more against libc++, the C++ library of macOS.
test: deps format-check portable-check test-dev test-asan test-libcxx

test-dev:
	@cmake --preset dev $(CCACHE_LAUNCHER) >/dev/null
	@cmake --build --preset dev -j $(JOBS)
	@ctest --preset dev -j $(JOBS)

test-asan:
	@cmake --preset asan $(CCACHE_LAUNCHER) >/dev/null
	@cmake --build --preset asan -j $(JOBS)
	@ASAN_OPTIONS=$(ASAN_OPTIONS_TEST) UBSAN_OPTIONS=print_stacktrace=1 ctest --preset asan -j $(JOBS) -L 'base|format|sampling|processes|history|alerts|agents|control|app'

# Linux only (macOS builds against libc++ already): clang with libc++, so that what libc++ lacks
# or declares differently breaks here before it breaks the Mac build. Every library and every
# test is compiled; the tests that need no simdjson (built for libstdc++ by the distribution) are
# linked and run. `-k 0` reports every failing file at once.
test-libcxx:
ifeq ($(SYSTEM),Linux)
	@cmake --preset libcxx $(CCACHE_LAUNCHER) >/dev/null
	@cmake --build --preset libcxx -j $(JOBS) -- -k 0
	@ctest --preset libcxx -j $(JOBS) -L 'base|format|sampling|processes|history|alerts'
else
	@echo "test-libcxx: not needed on $(SYSTEM), whose compiler uses libc++ already"
endif

# Code shared by both platforms must not name what only Linux has (see the script).
portable-check:
	@scripts/check-portable

# Skipped with a notice where clang-format $(CLANG_FORMAT_VERSION) is missing (Homebrew carries only
# the newest): another version would report differences that are not ours.
format-check:
	@if ! "$(CLANG_FORMAT)" --version 2>/dev/null | grep -q "version $(CLANG_FORMAT_VERSION)\."; then \
	  echo "format-check: skipped, clang-format $(CLANG_FORMAT_VERSION) not found (have: $$("$(CLANG_FORMAT)" --version 2>/dev/null || echo none))"; \
	else \
	  files=$$(git ls-files '*.cpp' '*.hpp' '*.mm' 2>/dev/null); \
	  if [ -n "$$files" ]; then "$(CLANG_FORMAT)" --dry-run --Werror $$files; fi; \
	fi

format:
	@git ls-files '*.cpp' '*.hpp' '*.mm' | xargs "$(CLANG_FORMAT)" -i

# `make bench` runs every benchmark; `make bench BENCH=tick_cost` runs one.
bench: build
	@set -e; for b in build/release/bench/bench_*; do \
	  name=$${b##*/bench_}; \
	  if [ -z "$(BENCH)" ] || [ "$(BENCH)" = "$$name" ]; then echo "== $$name"; "$$b"; fi; \
	done

# Every page of the window in both appearances at scale 1 and 2, drawn offscreen from live data
# after a short delay, into build/shots/<page>-<appearance>@<scale>x.png. The application runs with
# its own home folder there (kept between runs, so its history grows), already welcomed, with
# Claude Code and Codex data and raised alerts written fresh by scripts/shots-home before every
# shot (one shot of the alerts page would otherwise mark them read for the rest).
SHOT_PAGES ?= overview cpu memory gpu disk network battery heat apps agents sensors alerts settings welcome cpu:hour quit share
SHOT_DELAY ?= 3.5
# Long enough for a few samples, so that the items' charts and the panel's sparklines have a shape.
MENUBAR_SHOT_DELAY ?= 9
SHOT_BIN ?= build/release/src/vistrel
shots: build
	@$(MAKE) --no-print-directory shots-only

# The shots from the binary at SHOT_BIN, without building it first.
shots-only:
	@mkdir -p build/shots/home/.config/vistrel
	@[ -f build/shots/home/.config/vistrel/defaults.json ] || echo '{"welcomed": true}' > build/shots/home/.config/vistrel/defaults.json
	@set -e; for scale in 1 2; do for theme in night paper; do for page in $(SHOT_PAGES); do \
	  scripts/shots-home build/shots/home; \
	  out=build/shots/$$(echo $$page | tr ':' '-')-$$theme@$${scale}x.png; \
	  env -u XDG_CONFIG_HOME -u XDG_DATA_HOME -u DISPLAY -u WAYLAND_DISPLAY HOME=$(CURDIR)/build/shots/home \
	    QT_QPA_PLATFORM=offscreen QT_SCALE_FACTOR=$$scale VISTREL_SIZE=1180x780 VISTREL_SHOW=$$page VISTREL_THEME=$$theme \
	    VISTREL_SHOT=$(CURDIR)/$$out VISTREL_SHOT_DELAY=$(SHOT_DELAY) VISTREL_SHOT_QUIT=1 \
	    $(SHOT_BIN) 2>build/shots/last.log || { cat build/shots/last.log; exit 1; }; \
	  [ -s $$out ] || { echo "no shot written for $$page" >&2; cat build/shots/last.log; exit 1; }; \
	  echo "$$out"; \
	done; done; done
	@# The menu-bar items, the tray icon and the panel, at scale 2 in both appearances, from one run
	@# with the window open (so the samples come at the 2-second interval).
	@env -u XDG_CONFIG_HOME -u XDG_DATA_HOME -u DISPLAY -u WAYLAND_DISPLAY HOME=$(CURDIR)/build/shots/home \
	  QT_QPA_PLATFORM=offscreen VISTREL_SHOW=overview VISTREL_MENUBAR_SHOT=$(CURDIR)/build/shots/menubar \
	  VISTREL_SHOT_DELAY=$(MENUBAR_SHOT_DELAY) VISTREL_SHOT_QUIT=1 \
	  $(SHOT_BIN) 2>build/shots/last.log || { cat build/shots/last.log; exit 1; }
	@[ -s build/shots/menubar-panel-paper.png ] && [ -s build/shots/menubar-panel-night.png ] || \
	  { echo "no menu-bar shots written" >&2; cat build/shots/last.log; exit 1; }
	@ls build/shots/menubar-*.png

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
