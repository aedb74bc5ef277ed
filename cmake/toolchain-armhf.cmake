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
