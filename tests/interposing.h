// SPDX-License-Identifier: Apache-2.0
// For programs that define functions of the C library themselves, so that the library under test
// calls them.

#pragma once

#include <dlfcn.h>

#define EXPORTED __attribute__((visibility("default")))

// Returns the C library's function of this name. Where a sanitizer intercepts it, that is
// `interceptor`, else null.
template <class Function>
Function* real(Function* interceptor, const char* name) {
    if (interceptor != nullptr) return interceptor;
    return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}
