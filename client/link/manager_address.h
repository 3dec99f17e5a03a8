// SPDX-License-Identifier: Apache-2.0
// Which of the two sockets is the Manager's, by properties and by the name of the thread. Any
// thread.

#pragma once

#include <sys/un.h>

#include <string>

// Returns the path of the Manager's socket for the calling thread: on "eng" and "userdebug" builds
// the dedicated one if the thread carries the name of the designated service, else the default.
// Sets gIsOneService and gMarkersEnabled on those builds and leaves them on all others.
std::string choose_manager_path();

// Returns the address of `path`, cut to what an address can hold.
sockaddr_un manager_address(const std::string& path);
