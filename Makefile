# Entry points: `make help` lists every target with what it does; a target's
# help text is the "## " comment on its rule line.

PREFIX ?= /usr/local
JOBS ?= $(shell nproc)
BUILD := build
BUILD_ASAN := build-asan
BUILD_REL := build-release
BUILD_FUZZ := build-fuzz
FUZZ_SECONDS ?= 60
FUZZ_SMOKE_SECONDS ?= 10

.PHONY: help all deps build build-asan test test-normal test-asan valgrind demo bench build-fuzz fuzz fuzz-smoke install clean

all: build ## the normal build (the default target)

help: ## list the targets and what they do
	@awk -F ':.*## ' '/^[a-z][a-z-]*:.*## / { printf "  %-12s %s\n", $$1, $$2 }' $(MAKEFILE_LIST)

deps: ## install the Debian packages the build, tests and benchmarks need
	./scripts/install-deps

$(BUILD)/CMakeCache.txt:
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_INSTALL_PREFIX=$(PREFIX)

$(BUILD_ASAN)/CMakeCache.txt:
	cmake -S . -B $(BUILD_ASAN) -DCMAKE_BUILD_TYPE=Debug -DPOL_SANITIZE=ON

$(BUILD_REL)/CMakeCache.txt:
	cmake -S . -B $(BUILD_REL) -DCMAKE_BUILD_TYPE=Release -DPOL_BUILD_TESTS=OFF

build: deps $(BUILD)/CMakeCache.txt ## build everything in build/ (RelWithDebInfo)
	cmake --build $(BUILD) -j$(JOBS)

build-asan: deps $(BUILD_ASAN)/CMakeCache.txt ## build everything with AddressSanitizer + UBSan in build-asan/
	cmake --build $(BUILD_ASAN) -j$(JOBS)

test-normal: build ## run every test of the normal build
	cd $(BUILD) && ctest --output-on-failure -j$(JOBS)

test-asan: build-asan ## run every test of the sanitizer build
	cd $(BUILD_ASAN) && ASAN_OPTIONS=detect_leaks=1:abort_on_error=1:fast_unwind_on_malloc=0 \
	  UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 ctest --output-on-failure -j$(JOBS)

test: test-normal test-asan ## run every test in the normal and the sanitizer build

# Memcheck over the normal build: every GoogleTest binary, and polctl on the
# example commands. A definite leak counts as an error; possible and
# reachable leaks are not reported. Not traced (no --trace-children):
#  - death tests: their child re-executes the binary (threadsafe style) and
#    dies on purpose, so it runs natively and only the parent is checked;
#  - the polctl CTest cases, which run polctl through `cmake -P`: polctl is
#    run here directly under memcheck instead, on the same kinds of command.
# Every binary is run even after a failure; the target fails at the end.
VALGRIND := valgrind --tool=memcheck --quiet --error-exitcode=99 --leak-check=full \
	--show-leak-kinds=definite --errors-for-leak-kinds=definite \
	--suppressions=$(CURDIR)/tests/valgrind-re2.supp
POLCTL_VALGRIND_RUNS := \
	"run examples/policy.xml examples/routes.txt" \
	"--json run examples/policy.json examples/routes.txt" \
	"show policies examples/policy.xml examples/routes.txt" \
	"diff examples/policy.xml examples/policy-v2.xml" \
	"check examples/policy-v2.xml" \
	"show lists" "show users" "show memory"

valgrind: build ## run every test binary and polctl under valgrind memcheck; fails on any error or definite leak
	@failed=""; \
	for t in $$(find $(BUILD)/tests -type f -perm -u+x -name 'test_*' | sort); do \
	  echo "valgrind: $${t##*/}"; \
	  $(VALGRIND) "$$t" --gtest_brief=1 --gtest_death_test_style=threadsafe \
	    || failed="$$failed $${t##*/}"; \
	done; \
	for args in $(POLCTL_VALGRIND_RUNS); do \
	  echo "valgrind: polctl $$args"; \
	  $(VALGRIND) ./$(BUILD)/tools/polctl $$args >/dev/null || failed="$$failed polctl($$args)"; \
	done; \
	if [ -n "$$failed" ]; then echo "valgrind: errors in:$$failed" >&2; exit 1; fi

demo: build ## load the examples with polctl, print the policies, run the example routes; publish an edge's data policies into a daemon of its own
	./$(BUILD)/tools/polctl show policies examples/policy.xml examples/routes.txt
	./$(BUILD)/tools/polctl run examples/policy.xml examples/routes.txt
	./scripts/demo-publish $(BUILD)

bench: deps $(BUILD_REL)/CMakeCache.txt ## run every benchmark of a release build; fails if any misses its target
	cmake --build $(BUILD_REL) -j$(JOBS)
	@failed=""; \
	for b in $(BUILD_REL)/bench/bench_*; do \
	  [ -f "$$b" ] && [ -x "$$b" ] || continue; \
	  "$$b" || failed="$$failed $${b##*/}"; \
	done; \
	if [ -n "$$failed" ]; then echo "bench: targets missed by:$$failed" >&2; exit 1; fi

# libFuzzer targets (fuzz/), built with clang and instrumented with
# AddressSanitizer + UBSan; only the targets and what they link are built.
$(BUILD_FUZZ)/CMakeCache.txt:
	CC=clang CXX=clang++ cmake -S . -B $(BUILD_FUZZ) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DPOL_FUZZ=ON \
	  -DPOL_BUILD_TESTS=OFF -DPOL_BUILD_BENCH=OFF

build-fuzz: deps $(BUILD_FUZZ)/CMakeCache.txt ## build the fuzz targets with clang in build-fuzz/
	cmake --build $(BUILD_FUZZ) -j$(JOBS) --target fuzzers

fuzz: build-fuzz ## run each fuzz target for FUZZ_SECONDS (default 60); fails on any crash, leak or hang
	./fuzz/run-fuzzers.sh $(BUILD_FUZZ) $(FUZZ_SECONDS)

fuzz-smoke: build-fuzz ## run each fuzz target for FUZZ_SMOKE_SECONDS (default 10), as CI does
	./fuzz/run-fuzzers.sh $(BUILD_FUZZ) $(FUZZ_SMOKE_SECONDS)

install: build ## install the library, headers and pkg-config file under PREFIX
	cmake --install $(BUILD) --prefix $(PREFIX)

clean: ## remove the build trees (normal, sanitizer, release, fuzz)
	rm -rf $(BUILD) $(BUILD_ASAN) $(BUILD_REL) $(BUILD_FUZZ)
