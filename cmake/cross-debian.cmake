# The common part of the cross toolchain files: Debian's cross compiler for
# KORVANE_CROSS_TRIPLE, headers and libraries only from its sysroot, and
# programs built for the target run under qemu-user (KORVANE_QEMU) when a
# check or CTest wants to run them. The including file sets the triple, the
# processor, KORVANE_QEMU and KORVANE_DEB_ARCH first.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_C_COMPILER ${KORVANE_CROSS_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${KORVANE_CROSS_TRIPLE}-g++)

# Programs that run during the build (none so far) come from the build machine.
set(CMAKE_FIND_ROOT_PATH /usr/${KORVANE_CROSS_TRIPLE})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

set(CMAKE_CROSSCOMPILING_EMULATOR ${KORVANE_QEMU} -L /usr/${KORVANE_CROSS_TRIPLE})
