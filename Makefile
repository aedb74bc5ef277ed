# Front door: every command a user or CI needs.
#   make          build (build/korvane)
#   make test     install what is missing, build, run the whole suite
#   make demo     run the relay against the datalogger simulator
#   make asan     the suite under AddressSanitizer + UndefinedBehaviorSanitizer
#   make tsan     the suite under ThreadSanitizer
#   make fuzz     clang libFuzzer targets, each run briefly on its seed corpus

CMAKE_FLAGS ?=
JOBS ?= $(shell nproc)

.PHONY: all build test asan tsan deps demo clean fuzz

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
	  ctest --test-dir build-asan --output-on-failure -j $(JOBS) -LE fuzz

build-tsan/build.ninja:
	cmake -S . -B build-tsan -G Ninja -DCMAKE_BUILD_TYPE=Debug -DKORVANE_SANITIZE=thread $(CMAKE_FLAGS)

tsan: deps build-tsan/build.ninja
	cmake --build build-tsan -j $(JOBS)
	TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 \
	  ctest --test-dir build-tsan --output-on-failure -j $(JOBS) -LE fuzz

# Only the libraries and the fuzz targets are built in this tree; the tests
# labelled fuzz there are the timed libFuzzer runs.
build-fuzz/build.ninja:
	CC=clang CXX=clang++ cmake -S . -B build-fuzz -G Ninja -DKORVANE_FUZZ=ON -DKORVANE_TESTS=ON $(CMAKE_FLAGS)

fuzz: deps build-fuzz/build.ninja
	cmake --build build-fuzz -j $(JOBS) --target korvane_fuzz_targets
	ctest --test-dir build-fuzz --output-on-failure -j $(JOBS) -L fuzz

demo: deps build
	scripts/demo

clean:
	rm -rf build build-asan build-tsan
