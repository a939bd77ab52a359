# Two commands matter: `make run` starts Vistrel, `make test` builds everything and runs the tests.
# Both install what they need first.

JOBS ?= $(shell nproc 2>/dev/null || sysctl -n hw.ncpu 2>/dev/null || echo 2)
BENCH ?=
FUZZ_SECONDS ?= 60

.PHONY: all deps build run test test-dev test-asan format-check format bench fuzz shots shots-only clean

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

# Every page of the window in both appearances at scale 1 and 2, drawn offscreen from live data
# after a short delay, into build/shots/<page>-<appearance>@<scale>x.png. The application runs with
# its own home folder there (kept between runs, so its history grows), already welcomed.
SHOT_PAGES ?= overview cpu memory gpu disk network battery heat apps agents sensors alerts settings welcome cpu:hour
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
	  out=build/shots/$$(echo $$page | tr ':' '-')-$$theme@$${scale}x.png; \
	  env -u XDG_CONFIG_HOME -u XDG_DATA_HOME -u DISPLAY -u WAYLAND_DISPLAY HOME=$(CURDIR)/build/shots/home \
	    QT_QPA_PLATFORM=offscreen QT_SCALE_FACTOR=$$scale VISTREL_SHOW=$$page VISTREL_THEME=$$theme \
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

clean:
	rm -rf build
