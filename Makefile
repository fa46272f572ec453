# Entry points: `make test` builds and runs every test in the normal and the
# sanitizer build; `make demo` loads the examples with polctl, prints the
# policies with the library's dump and runs the example routes; `make bench` runs the
# benchmarks of a release build; `make install PREFIX=...` installs.

PREFIX ?= /usr/local
JOBS ?= $(shell nproc)
BUILD := build
BUILD_ASAN := build-asan
BUILD_REL := build-release

.PHONY: all deps build build-asan test test-normal test-asan demo bench install clean

all: build

deps:
	./scripts/install-deps

$(BUILD)/CMakeCache.txt:
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_INSTALL_PREFIX=$(PREFIX)

$(BUILD_ASAN)/CMakeCache.txt:
	cmake -S . -B $(BUILD_ASAN) -DCMAKE_BUILD_TYPE=Debug -DPOL_SANITIZE=ON

$(BUILD_REL)/CMakeCache.txt:
	cmake -S . -B $(BUILD_REL) -DCMAKE_BUILD_TYPE=Release -DPOL_BUILD_TESTS=OFF

build: deps $(BUILD)/CMakeCache.txt
	cmake --build $(BUILD) -j$(JOBS)

build-asan: deps $(BUILD_ASAN)/CMakeCache.txt
	cmake --build $(BUILD_ASAN) -j$(JOBS)

test-normal: build
	cd $(BUILD) && ctest --output-on-failure -j$(JOBS)

test-asan: build-asan
	cd $(BUILD_ASAN) && ASAN_OPTIONS=detect_leaks=1:abort_on_error=1:fast_unwind_on_malloc=0 \
	  LSAN_OPTIONS=suppressions=$(CURDIR)/tests/lsan.supp \
	  UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 ctest --output-on-failure -j$(JOBS)

test: test-normal test-asan

demo: build
	./$(BUILD)/tools/polctl show policies examples/policy.xml examples/routes.txt
	./$(BUILD)/tools/polctl run examples/policy.xml examples/routes.txt

bench: deps $(BUILD_REL)/CMakeCache.txt
	cmake --build $(BUILD_REL) -j$(JOBS)
	@for b in $(BUILD_REL)/bench/bench_*; do [ -x "$$b" ] && "$$b" || true; done

install: build
	cmake --install $(BUILD) --prefix $(PREFIX)

clean:
	rm -rf $(BUILD) $(BUILD_ASAN) $(BUILD_REL)
