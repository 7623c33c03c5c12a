# Everyday entry points. `make demo` and `make test` do the whole set-up on a
# fresh Debian machine: install what is missing, configure, build, run.
BUILD     ?= build
SANBUILD  ?= build-sanitize
TSANBUILD ?= build-tsan
FUZZBUILD ?= build-fuzz
FUZZ_SECONDS ?= 60
SOAK_SECONDS ?= 60
PREFIX    ?= /usr/local
JOBS      ?= $(shell nproc)
CMAKE_GEN  = -G Ninja

.PHONY: all deps deps-fuzz deps-server-bench configure build demo test check test-sanitize test-tsan fuzz soak bench bench-server install clean

all: build

deps:
	@scripts/install-deps

deps-fuzz:
	@scripts/install-deps --fuzz

deps-server-bench:
	@scripts/install-deps --server-bench

$(BUILD)/build.ninja:
	cmake -S . -B $(BUILD) $(CMAKE_GEN) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_INSTALL_PREFIX=$(PREFIX)

configure: deps $(BUILD)/build.ninja

build: configure
	cmake --build $(BUILD) -j $(JOBS)

# Builds only the library and the demo, so a newcomer sees it run at once:
# the Redis-protocol server under its own load.
demo: configure
	cmake --build $(BUILD) -j $(JOBS) --target velik_redis velik-top
	cd $(BUILD) && ./examples/velik_redis

test: build
	cd $(BUILD) && ctest --output-on-failure -j $(JOBS)

# What CI checks besides the suite: every source clang-formatted, and every
# include pointing down a layer (scripts/check-layers).
check: deps
	git ls-files -- '*.cpp' '*.h' '*.c' | xargs clang-format --dry-run -Werror
	scripts/check-layers

$(SANBUILD)/build.ninja:
	cmake -S . -B $(SANBUILD) $(CMAKE_GEN) -DCMAKE_BUILD_TYPE=Debug -DVELIK_SANITIZE=ON \
	      -DVELIK_BUILD_BENCH=OFF

# The suite again under AddressSanitizer and UndefinedBehaviorSanitizer; any
# report fails the run.
test-sanitize: deps $(SANBUILD)/build.ninja
	cmake --build $(SANBUILD) -j $(JOBS)
	cd $(SANBUILD) && ASAN_OPTIONS=detect_leaks=1:abort_on_error=0 \
	    UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
	    ctest --output-on-failure -j $(JOBS)

# The multi-threaded tests (several roots on several threads, the backtrace
# tracker, the string cache, locks and file locks, thread-local singletons,
# the framework's shared pieces) under ThreadSanitizer: the cases labelled
# "tsan" in tests/CMakeLists.txt. Death tests fork and are left out.
TSAN_PROGRAMS = foundation_tests kiv_tests adapter_tests diagnostics_tests platform_tests \
                scheduler_tests util_tests

$(TSANBUILD)/build.ninja:
	cmake -S . -B $(TSANBUILD) $(CMAKE_GEN) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVELIK_TSAN=ON \
	      -DVELIK_BUILD_BENCH=OFF -DVELIK_BUILD_EXAMPLES=OFF -DVELIK_BUILD_SOAK=OFF

test-tsan: deps $(TSANBUILD)/build.ninja
	cmake --build $(TSANBUILD) -j $(JOBS) --target $(TSAN_PROGRAMS)
	cd $(TSANBUILD) && \
	    TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1 suppressions=$(CURDIR)/scripts/tsan.supp" \
	    ctest --output-on-failure -j $(JOBS) -L tsan -E 'DeathTest'

# libFuzzer targets (fuzz/) built with Debian's clang, each run for
# FUZZ_SECONDS on a scratch copy of its seed corpus; a crash fails the run.
$(FUZZBUILD)/build.ninja:
	CC=clang-14 CXX=clang++-14 cmake -S . -B $(FUZZBUILD) $(CMAKE_GEN) -DCMAKE_BUILD_TYPE=RelWithDebInfo \
	      -DVELIK_FUZZ=ON -DVELIK_BUILD_TESTS=OFF -DVELIK_BUILD_BENCH=OFF \
	      -DVELIK_BUILD_EXAMPLES=OFF -DVELIK_BUILD_SOAK=OFF

fuzz: deps-fuzz $(FUZZBUILD)/build.ninja
	cmake --build $(FUZZBUILD) -j $(JOBS)
	scripts/run-fuzz $(FUZZBUILD) $(FUZZ_SECONDS)

# Thousands of tasks, timer tasks and descriptor tasks on two threads for
# SOAK_SECONDS, under AddressSanitizer and LeakSanitizer: prints resident
# memory along the way and fails on any leak.
soak: deps $(SANBUILD)/build.ninja
	cmake --build $(SANBUILD) -j $(JOBS) --target velik_soak
	cd $(SANBUILD) && ASAN_OPTIONS=detect_leaks=1:quarantine_size_mb=16 \
	    ./soak/velik_soak $(SOAK_SECONDS)

bench: build
	cmake --build $(BUILD) --target run-bench

# redis-benchmark against redis-server and against the example server, side
# by side (scripts/bench-server; BENCH_WORKERS, BENCH_REQUESTS).
bench-server: deps-server-bench configure
	cmake --build $(BUILD) -j $(JOBS) --target velik_redis
	scripts/bench-server $(BUILD)

install: build
	cmake --install $(BUILD) --prefix $(PREFIX)

clean:
	rm -rf $(BUILD) $(SANBUILD) $(TSANBUILD) $(FUZZBUILD)
