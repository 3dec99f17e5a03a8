#pragma once

#include <system_error>
#include <thread>
#include <utility>

// Starts a thread. Throws std::system_error with the text "thread constructor failed", whichever
// words the standard library has for it.
template <class Function, class... Arguments>
std::thread start_thread(Function&& function, Arguments&&... arguments) {
    try {
        return std::thread(std::forward<Function>(function), std::forward<Arguments>(arguments)...);
    } catch (const std::system_error& error) {
        throw std::system_error(error.code(), "thread constructor failed");
    }
}
