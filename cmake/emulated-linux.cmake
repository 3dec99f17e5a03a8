# SPDX-License-Identifier: Apache-2.0
# What the toolchains of Debian's cross compilers have in common; a toolchain file sets
# vexon_architecture (Debian's name) and vexon_qemu before it includes this. Libraries come from the
# sysroot that scripts/make-sysroot fills, programs of the build run in qemu's user emulation.

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_C_COMPILER ${CMAKE_LIBRARY_ARCHITECTURE}-gcc)
set(CMAKE_CXX_COMPILER ${CMAKE_LIBRARY_ARCHITECTURE}-g++)

get_filename_component(CMAKE_SYSROOT
    "${CMAKE_CURRENT_LIST_DIR}/../build/${vexon_architecture}-sysroot" ABSOLUTE)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${CMAKE_SYSROOT}")
set(libraries "${CMAKE_SYSROOT}/usr/lib/${CMAKE_LIBRARY_ARCHITECTURE}")
set(ENV{PKG_CONFIG_LIBDIR} "${libraries}/pkgconfig:${CMAKE_SYSROOT}/usr/share/pkgconfig")

find_program(VEXON_QEMU NAMES ${vexon_qemu} ${vexon_qemu}-static REQUIRED)
set(CMAKE_CROSSCOMPILING_EMULATOR "${VEXON_QEMU};-L;${CMAKE_SYSROOT}")
