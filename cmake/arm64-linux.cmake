# SPDX-License-Identifier: Apache-2.0
# Toolchain of Debian's g++ for arm64.

set(vexon_architecture arm64)
set(vexon_qemu qemu-aarch64)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)
include("${CMAKE_CURRENT_LIST_DIR}/emulated-linux.cmake")
