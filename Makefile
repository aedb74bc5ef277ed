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
	  ctest --test-dir build-asan --output-on-failure -j $(JOBS)

build-tsan/build.ninja:
	cmake -S . -B build-tsan -G Ninja -DCMAKE_BUILD_TYPE=Debug -DKORVANE_SANITIZE=thread $(CMAKE_FLAGS)

tsan: deps build-tsan/build.ninja
	cmake --build build-tsan -j $(JOBS)
	TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 \
	  ctest --test-dir build-tsan --output-on-failure -j $(JOBS)

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
#   make dist      build-dist/korvane-<version>.tar.gz, the committed sources
# The version is the one of the project() line in CMakeLists.txt; the
# packages, the manual pages and the source tarball all take it from there.
PREFIX ?= /usr/local
DESTDIR ?=
VERSION := $(shell sed -n 's/^project.korvane VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)
# What goes into a package is built with Debian's flags, hardening included.
# _FORTIFY_SOURCE shows the compiler buffer sizes it does not see otherwise,
# so a package build can warn (and, with -Werror, fail) where the others pass.
# The ARM box's 64-bit time_t comes with cmake/toolchain-armhf.cmake.
BUILDFLAGS = DEB_BUILD_MAINT_OPTIONS=hardening=+all dpkg-buildflags --get
package_cmake = -DKORVANE_TESTS=OFF -DCMAKE_INSTALL_PREFIX=/usr \
  -DCMAKE_C_FLAGS="$$($(BUILDFLAGS) CPPFLAGS) $$($(BUILDFLAGS) CFLAGS)" \
  -DCMAKE_CXX_FLAGS="$$($(BUILDFLAGS) CPPFLAGS) $$($(BUILDFLAGS) CXXFLAGS)" \
  -DCMAKE_EXE_LINKER_FLAGS="$$($(BUILDFLAGS) LDFLAGS)"

.PHONY: install armhf package dist

install: build
	DESTDIR="$(DESTDIR)" cmake --install build --prefix "$(PREFIX)"

build-armhf/build.ninja:
	@scripts/deps package
	export DEB_HOST_ARCH=armhf; cmake -S . -B build-armhf -G Ninja \
	  -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-armhf.cmake $(package_cmake) $(CMAKE_FLAGS)

armhf: build-armhf/build.ninja
	cmake --build build-armhf -j $(JOBS)

build-pkg/build.ninja:
	@scripts/deps package
	cmake -S . -B build-pkg -G Ninja $(package_cmake) $(CMAKE_FLAGS)

package: armhf build-pkg/build.ninja
	cmake --build build-pkg -j $(JOBS)
	cd build-pkg && cpack -B "$(CURDIR)/build-dist"
	cd build-armhf && cpack -B "$(CURDIR)/build-dist"
	@ls -1 build-dist/*.deb

# The committed tree of HEAD (uncommitted changes are left out, and named).
# The same commit gives the same bytes: git archive stamps every file with
# the commit's time in the tree's own order, and gzip -n adds no name or time.
dist:
	@git diff --quiet HEAD -- || { echo "make dist: uncommitted changes are not in the tarball:"; \
	  git status --short --untracked-files=no; }
	@mkdir -p build-dist
	git archive --format=tar --prefix=korvane-$(VERSION)/ HEAD | gzip -9n > build-dist/korvane-$(VERSION).tar.gz.tmp
	mv build-dist/korvane-$(VERSION).tar.gz.tmp build-dist/korvane-$(VERSION).tar.gz
	@sha256sum build-dist/korvane-$(VERSION).tar.gz

# The service under a real systemd, and a build on the next Debian release,
# each in a throwaway Debian root cached in roots/ (tools: scripts/deps
# roots; root, network to the Debian mirror of /etc/apt; not in CI):
#   make unit-test     Debian 12 booted in a container, the amd64 package
#                      installed, korvane@default driven through its life
#   make trixie-test   the unit tests built and run in a Debian 13 chroot
.PHONY: unit-test trixie-test

unit-test: package
	scripts/unit-test build-dist/korvane_$(VERSION)_amd64.deb

trixie-test:
	JOBS=$(JOBS) scripts/trixie-test

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
