# The front door: `make` builds both flavours, `make test` runs every test in both, `make demo` shows it working.
JOBS      ?= 2
FLAVOURS  := 32 64

.PHONY: all deps build test demo clean configure coverage

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

# Line and branch coverage of the library and zepgw (64-bit, build/coverage); fails below the floors.
coverage:
	@scripts/coverage.sh

demo: build
	@scripts/run-demo.sh build/64

clean:
	rm -rf build
