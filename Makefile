# The README's two commands live here. `make test` is also what CI runs.
# `fuzz` builds only the libFuzzer targets (clang) and its ctest runs each for
# a short while over its seed corpus.
PRESETS ?= release asan fuzz
JOBS ?= $(shell nproc)
FUZZ_SECONDS ?= 600
FUZZ_TARGETS = config_loader stats_reader message_builder

.PHONY: demo test build bootstrap package bench fuzz format format-check lint clean

bootstrap:
	@scripts/bootstrap

# The main job: the agent on the bundled example, with a libfixbuf collector
# printing what it decodes, then the statistics table, then a clean stop.
demo: bootstrap
	@cmake --preset release >/dev/null && cmake --build --preset release -j $(JOBS) \
	   --target ipfix-agent ipfix-collect ipfix-stats >/dev/null
	@scripts/demo build/release

build: bootstrap
	@for p in $(PRESETS); do \
	   cmake --preset $$p >/dev/null && cmake --build --preset $$p -j $(JOBS) || exit 1; \
	done

test: format-check build
	@passed=0; failed=0; for p in $(PRESETS); do \
	   echo "== ctest ($$p) =="; \
	   ctest --preset $$p -j $(JOBS) | tee build/ctest-$$p.log; \
	   line=$$(grep -E 'tests passed, [0-9]+ tests failed out of' build/ctest-$$p.log); \
	   total=$$(echo "$$line" | sed -E 's/.*out of ([0-9]+).*/\1/'); \
	   bad=$$(echo "$$line" | sed -E 's/.* ([0-9]+) tests failed.*/\1/'); \
	   [ -n "$$total" ] || { total=0; bad=1; }; \
	   passed=$$((passed + total - bad)); failed=$$((failed + bad)); \
	done; echo "summary: $$passed passed, $$failed failed"; [ $$failed -eq 0 ]

# The Debian package of the release build, in build/release.
package: bootstrap
	@cmake --preset release >/dev/null && cmake --build --preset release -j $(JOBS) --target package

# A long run of each fuzz target, one after the other; the corpus grows in
# build/fuzz/tests/fuzz/<target>/corpus across runs, and a failing input is
# saved next to it.
fuzz: bootstrap
	@cmake --preset fuzz >/dev/null && cmake --build --preset fuzz -j $(JOBS)
	@for t in $(FUZZ_TARGETS); do \
	   echo "== fuzz_$$t ($(FUZZ_SECONDS) s) =="; \
	   KEEP_CORPUS=1 tests/fuzz/run-fuzzer build/fuzz/tests/fuzz/fuzz_$$t tests/fuzz/corpus/$$t \
	      build/fuzz/tests/fuzz/$$t -max_total_time=$(FUZZ_SECONDS) -timeout=10 || exit 1; \
	done

bench: bootstrap
	@cmake --preset release >/dev/null && cmake --build --preset release -j $(JOBS)
	@for b in build/release/bench/*_bench; do echo "== $$b =="; $$b; done

format:
	@git ls-files '*.h' '*.cpp' | xargs clang-format -i

# Fails, naming the files, when any C++ file is not as clang-format writes it.
format-check: bootstrap
	@git ls-files '*.h' '*.cpp' | xargs clang-format --dry-run -Werror

# The format check, then clang-tidy (.clang-tidy) over the release build's
# sources and, through them, our headers.
lint: format-check
	@cmake --preset release >/dev/null && cmake --build --preset release -j $(JOBS)
	@git ls-files 'platform/*.cpp' 'model/*.cpp' 'Ipfix/*.cpp' 'control/*.cpp' 'agent/*.cpp' \
	   'tools/*.cpp' | xargs clang-tidy -p build/release --quiet

clean:
	rm -rf build
