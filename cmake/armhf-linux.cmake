# SPDX-License-Identifier: Apache-2.0
# Toolchain of Debian's g++ for 32-bit ARM.

set(vexon_architecture armhf)
set(vexon_qemu qemu-arm)
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)
include("${CMAKE_CURRENT_LIST_DIR}/emulated-linux.cmake")
