# Cross build for the box beside the datalogger: 32-bit ARM, hard-float,
# Debian's arm-linux-gnueabihf toolchain (package g++-arm-linux-gnueabihf).
#   cmake -S . -B build-armhf -G Ninja \
#         -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-armhf.cmake -DKORVANE_TESTS=OFF
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(KORVANE_CROSS_TRIPLE arm-linux-gnueabihf)
set(KORVANE_QEMU qemu-arm)
# Lets the package step name the right architecture.
set(KORVANE_DEB_ARCH armhf)
include(${CMAKE_CURRENT_LIST_DIR}/cross-debian.cmake)

# The box is 32-bit and stays in the field for years: 64-bit time_t (and the
# 64-bit file offsets glibc requires with it) keep its clock right after
# January 2038. Set here, every build for the box gets them (make armhf, the
# package, scripts/cross-test), whatever CMAKE_CXX_FLAGS it is given, and so
# do the compile checks; cmake/install.cmake refuses a tree without them.
add_compile_definitions(_FILE_OFFSET_BITS=64 _TIME_BITS=64)
