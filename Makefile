# The front door: `make` builds both flavours, `make test` runs every test in both, `make demo` shows it working,
# `make install PREFIX=...` installs both flavours, `make docs` builds the HTML reference.
# Each target installs the build tools it is missing first (scripts/ensure-deps.sh).
JOBS      ?= 2
FUZZ_SECONDS ?= 60
FLAVOURS  := 32 64
PREFIX    ?= /usr/local
export JOBS

.PHONY: all deps build test demo bench install docs fuzz coverage clean

all: build

deps:
	@scripts/ensure-deps.sh test

build: deps
	@for f in $(FLAVOURS); do scripts/build.sh $$f || exit 1; done

test: build
	@scripts/run-tests.sh $(FLAVOURS)

# Only what the demo needs: the 64-bit library, zepgw and the demo.
demo:
	@scripts/ensure-deps.sh demo
	@scripts/build.sh 64 zepclient zepgw demo
	@scripts/run-demo.sh build/64

# Line and branch coverage of the library and zepgw (64-bit, build/coverage); fails below the floors.
coverage:
	@scripts/coverage.sh

# Every libFuzzer target of fuzz/ for FUZZ_SECONDS seconds, built with clang in build/fuzz.
fuzz:
	@FUZZ_SECONDS=$(FUZZ_SECONDS) scripts/run-fuzz.sh

# Not part of test: a few minutes of measurement on the 64-bit build (BENCH_QUICK=1 for a short run).
bench: deps
	@scripts/build.sh 64 zepgw raw_client zepbench cpp_overhead
	@scripts/bench.sh build/64

# Both flavours under one prefix: each library in its own multiarch folder, the 64-bit programs in bin/.
install: build
	@for component in runtime development; do \
	  cmake --install build/32 --prefix "$(PREFIX)" --component $$component || exit 1; \
	done
	@cmake --install build/64 --prefix "$(PREFIX)"

docs:
	@scripts/ensure-deps.sh docs
	@mkdir -p build/docs
	@doxygen docs/Doxyfile
	@echo "The reference is in build/docs/html/index.html"

clean:
	rm -rf build
