# Everyday entry points. `make demo` and `make test` do the whole set-up on a
# fresh Debian machine: install what is missing, configure, build, run.
BUILD     ?= build
SANBUILD  ?= build-sanitize
PREFIX    ?= /usr/local
JOBS      ?= $(shell nproc)
CMAKE_GEN  = -G Ninja

.PHONY: all deps configure build demo test test-sanitize bench install clean

all: build

deps:
	@scripts/install-deps

$(BUILD)/build.ninja:
	cmake -S . -B $(BUILD) $(CMAKE_GEN) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_INSTALL_PREFIX=$(PREFIX)

configure: deps $(BUILD)/build.ninja

build: configure
	cmake --build $(BUILD) -j $(JOBS)

# Builds only the library and the demo, so a newcomer sees it run at once.
demo: configure
	cmake --build $(BUILD) -j $(JOBS) --target velik_demo velik-top
	cd $(BUILD) && ./examples/velik_demo

test: build
	cd $(BUILD) && ctest --output-on-failure -j $(JOBS)

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

bench: build
	cmake --build $(BUILD) --target run-bench

install: build
	cmake --install $(BUILD) --prefix $(PREFIX)

clean:
	rm -rf $(BUILD) $(SANBUILD)
