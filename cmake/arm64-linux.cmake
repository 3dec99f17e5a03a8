# Toolchain of Debian's g++ for arm64. Libraries come from the sysroot that
# scripts/make-arm64-sysroot fills, programs of the build run in qemu's user emulation.

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)

get_filename_component(CMAKE_SYSROOT "${CMAKE_CURRENT_LIST_DIR}/../build/arm64-sysroot" ABSOLUTE)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${CMAKE_SYSROOT}")
set(ENV{PKG_CONFIG_LIBDIR}
    "${CMAKE_SYSROOT}/usr/lib/aarch64-linux-gnu/pkgconfig:${CMAKE_SYSROOT}/usr/share/pkgconfig")

find_program(VEXON_QEMU NAMES qemu-aarch64 qemu-aarch64-static REQUIRED)
set(CMAKE_CROSSCOMPILING_EMULATOR "${VEXON_QEMU};-L;${CMAKE_SYSROOT}")
