# Cross build for a 64-bit big-endian machine (IBM Z), Debian's
# s390x-linux-gnu toolchain (package g++-s390x-linux-gnu). Nobody deploys the
# relay there: it is where the unit tests meet a byte order opposite to the
# ARM box's, run under qemu-user (package qemu-user).
#   scripts/cross-test s390x
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR s390x)

set(KORVANE_CROSS_TRIPLE s390x-linux-gnu)
set(CMAKE_C_COMPILER ${KORVANE_CROSS_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${KORVANE_CROSS_TRIPLE}-g++)

# Headers and libraries come only from the cross sysroot; programs that run
# during the build come from the build machine.
set(CMAKE_FIND_ROOT_PATH /usr/${KORVANE_CROSS_TRIPLE})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# CTest runs every test program through qemu-user with the sysroot's
# dynamic loader and libraries.
set(KORVANE_DEB_ARCH s390x)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-s390x -L /usr/${KORVANE_CROSS_TRIPLE})
