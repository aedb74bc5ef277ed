# Front door: every command a user or CI needs.
#   make          build (build/korvane)
#   make test     install what is missing, build, run the whole suite
#   make demo     run the relay against the datalogger simulator
#   make asan     the suite under AddressSanitizer + UndefinedBehaviorSanitizer
#   make tsan     the suite under ThreadSanitizer
#   make fuzz     clang libFuzzer targets, each run briefly on its seed corpus
#   make mutants  mutation testing of the suite (not in CI; up to an hour);
#                 narrow it with MUTANTS='net/udp.cpp --all'

CMAKE_FLAGS ?=
JOBS ?= $(shell nproc)
# The soak test runs longest under the sanitizers, where leaks and races show.
SOAK_SECONDS ?= 120

.PHONY: all build test asan tsan deps demo clean fuzz mutants

all: build

build/build.ninja:
	cmake -S . -B build -G Ninja $(CMAKE_FLAGS)

build: build/build.ninja
	cmake --build build -j $(JOBS)

deps:
	@scripts/deps

test: deps build
	ctest --test-dir build --output-on-failure -j $(JOBS)
	$(MAKE) fuzz

build-asan/build.ninja:
	cmake -S . -B build-asan -G Ninja -DCMAKE_BUILD_TYPE=Debug -DKORVANE_SANITIZE=address $(CMAKE_FLAGS)

asan: deps build-asan/build.ninja
	cmake --build build-asan -j $(JOBS)
	ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
	  KORVANE_SOAK_SECONDS=$(SOAK_SECONDS) ctest --test-dir build-asan --output-on-failure -j $(JOBS)

build-tsan/build.ninja:
	cmake -S . -B build-tsan -G Ninja -DCMAKE_BUILD_TYPE=Debug -DKORVANE_SANITIZE=thread $(CMAKE_FLAGS)

tsan: deps build-tsan/build.ninja
	cmake --build build-tsan -j $(JOBS)
	TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 \
	  KORVANE_SOAK_SECONDS=$(SOAK_SECONDS) ctest --test-dir build-tsan --output-on-failure -j $(JOBS)

# Only the libraries and the fuzz targets are built in this tree; the tests
# labelled fuzz there are the timed libFuzzer runs.
build-fuzz/build.ninja:
	CC=clang CXX=clang++ cmake -S . -B build-fuzz -G Ninja -DKORVANE_FUZZ=ON -DKORVANE_TESTS=ON $(CMAKE_FLAGS)

fuzz: deps build-fuzz/build.ninja
	cmake --build build-fuzz -j $(JOBS) --target korvane_fuzz_targets
	ctest --test-dir build-fuzz --output-on-failure -j $(JOBS) -L fuzz

demo: deps build
	scripts/demo

MUTANTS ?=
mutants: deps
	scripts/mutants $(MUTANTS)

clean:
	rm -rf build build-asan build-tsan build-fuzz build-mutants

# Deployment (tools: scripts/deps package):
#   make install   the relay, the tools, man pages, example parameter file and
#                  systemd unit under PREFIX (default /usr/local); DESTDIR is
#                  honoured: make install PREFIX=/usr DESTDIR=/tmp/stage
#   make armhf     cross build for the ARM box: build-armhf/korvane
#   make package   korvane_<version>_amd64.deb and _armhf.deb in build-dist/
PREFIX ?= /usr/local
DESTDIR ?=
# What goes into a package is built with Debian's flags, hardening included.
# _FORTIFY_SOURCE shows the compiler buffer sizes it does not see otherwise,
# so a package build can warn (and, with -Werror, fail) where the others pass.
BUILDFLAGS = DEB_BUILD_MAINT_OPTIONS=hardening=+all dpkg-buildflags --get
# $(call package_cmake,extra preprocessor flags)
package_cmake = -DKORVANE_TESTS=OFF -DCMAKE_INSTALL_PREFIX=/usr \
  -DCMAKE_C_FLAGS="$$($(BUILDFLAGS) CPPFLAGS) $(1) $$($(BUILDFLAGS) CFLAGS)" \
  -DCMAKE_CXX_FLAGS="$$($(BUILDFLAGS) CPPFLAGS) $(1) $$($(BUILDFLAGS) CXXFLAGS)" \
  -DCMAKE_EXE_LINKER_FLAGS="$$($(BUILDFLAGS) LDFLAGS)"
# The box is 32-bit and stays in the field for years: 64-bit time_t (and the
# 64-bit file offsets it requires) keep its clock right after January 2038.
ARMHF_ABI = -D_FILE_OFFSET_BITS=64 -D_TIME_BITS=64

.PHONY: install armhf package

install: build
	DESTDIR="$(DESTDIR)" cmake --install build --prefix "$(PREFIX)"

build-armhf/build.ninja:
	@scripts/deps package
	export DEB_HOST_ARCH=armhf; cmake -S . -B build-armhf -G Ninja \
	  -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-armhf.cmake $(call package_cmake,$(ARMHF_ABI)) $(CMAKE_FLAGS)

armhf: build-armhf/build.ninja
	cmake --build build-armhf -j $(JOBS)

build-pkg/build.ninja:
	@scripts/deps package
	cmake -S . -B build-pkg -G Ninja $(call package_cmake) $(CMAKE_FLAGS)

package: armhf build-pkg/build.ninja
	cmake --build build-pkg -j $(JOBS)
	cd build-pkg && cpack -B "$(CURDIR)/build-dist"
	cd build-armhf && cpack -B "$(CURDIR)/build-dist"
	@ls -1 build-dist/*.deb

# The unit tests built for the ARM box (32-bit) and a big-endian machine with
# Debian's cross compilers, run under qemu-user (scripts/cross-test).
.PHONY: cross-test
cross-test:
	JOBS=$(JOBS) scripts/cross-test

# Benchmarks against the line's own limits (tools: scripts/deps bench):
#   make bench     a few minutes; writes bench/REPORT.md and bench/latency.svg,
#                  raw rows in bench/results.csv. Steadiest on a quiet machine.
.PHONY: bench

bench:
	@scripts/deps bench
	bench/run
