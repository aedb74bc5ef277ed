# Cross build for the box beside the datalogger: 32-bit ARM, hard-float,
# Debian's arm-linux-gnueabihf toolchain (package g++-arm-linux-gnueabihf).
#   cmake -S . -B build-armhf -G Ninja \
#         -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-armhf.cmake -DKORVANE_TESTS=OFF
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR armv7l)

set(KORVANE_CROSS_TRIPLE arm-linux-gnueabihf)
set(CMAKE_C_COMPILER ${KORVANE_CROSS_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${KORVANE_CROSS_TRIPLE}-g++)

# Headers and libraries come only from the cross sysroot; programs that run
# during the build (none so far) come from the build machine.
set(CMAKE_FIND_ROOT_PATH /usr/${KORVANE_CROSS_TRIPLE})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# Lets the package step name the right architecture and run the produced
# programs under qemu-user when a check wants to.
set(KORVANE_DEB_ARCH armhf)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm -L /usr/${KORVANE_CROSS_TRIPLE})
