// SPDX-License-Identifier: Apache-2.0
// For programs that need the Manager's real path: any user may run them, and several at a time.

#pragma once

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

// Replaces the process by the same program inside a private /dev, made by `tool`, the path of
// vexon-private-dev. Does nothing if that has happened already. The processes that a program starts
// enter another /dev if they call this too. To be called while there is one thread.
inline void enter_private_dev(const char* tool, char** argv) {
    constexpr const char* kInsideMark = "VEXON_HAS_PRIVATE_DEV";
    const std::string process = std::to_string(::getpid());
    const char* const inside = std::getenv(kInsideMark);
    if (inside != nullptr && inside == process) return;

    ::setenv(kInsideMark, process.c_str(), 1);
    std::vector<char*> command = {const_cast<char*>(tool), argv[0]};
    for (char** argument = argv + 1; *argument != nullptr; ++argument) command.push_back(*argument);
    command.push_back(nullptr);
    ::execv(command[0], command.data());
    std::perror(command[0]);
    std::exit(EXIT_FAILURE);
}
