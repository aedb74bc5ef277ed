# Cross build for a 64-bit big-endian machine (IBM Z), Debian's
# s390x-linux-gnu toolchain (package g++-s390x-linux-gnu). Nobody deploys the
# relay there: it is where the unit tests meet a byte order opposite to the
# ARM box's, run under qemu-user (package qemu-user).
#   scripts/cross-test s390x
set(CMAKE_SYSTEM_PROCESSOR s390x)
set(KORVANE_CROSS_TRIPLE s390x-linux-gnu)
set(KORVANE_QEMU qemu-s390x)
set(KORVANE_DEB_ARCH s390x)
include(${CMAKE_CURRENT_LIST_DIR}/cross-debian.cmake)
