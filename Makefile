# The front door: `make` builds both flavours, `make test` runs every test in both, `make demo` shows it working.
JOBS      ?= 2
FLAVOURS  := 32 64

.PHONY: all deps build test demo bench clean configure

all: build

deps:
	@scripts/ensure-deps.sh

configure: deps
	@for f in $(FLAVOURS); do \
	  [ -f build/$$f/CMakeCache.txt ] || cmake -S . -B build/$$f $$( [ $$f = 32 ] && echo -DZEP_M32=ON ) >/dev/null || exit 1; \
	done

build: configure
	@for f in $(FLAVOURS); do cmake --build build/$$f -j$(JOBS) || exit 1; done

test: build
	@for f in $(FLAVOURS); do \
	  echo "== $$f-bit flavour =="; \
	  ctest --test-dir build/$$f --output-on-failure -j$(JOBS) || exit 1; \
	done

demo: build
	@scripts/run-demo.sh build/64

# Not part of test: a few minutes of measurement on the 64-bit build (BENCH_QUICK=1 for a short run).
bench: configure
	@cmake --build build/64 -j$(JOBS) --target zepgw raw_client zepbench
	@scripts/bench.sh build/64

clean:
	rm -rf build
