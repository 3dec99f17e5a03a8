// SPDX-License-Identifier: Apache-2.0
#include "client/utility/threads.h"

namespace {

pthread_attr_t make_attributes() {
    pthread_attr_t attributes{};
    ::pthread_attr_init(&attributes);
    ::pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    std::size_t usual = 0;
    ::pthread_attr_getstacksize(&attributes, &usual);
    if (usual < kLeastStack) ::pthread_attr_setstacksize(&attributes, kLeastStack);
    return attributes;
}

}  // namespace

const pthread_attr_t* thread_attributes() {
    static const pthread_attr_t attributes = make_attributes();  // has no destructor
    return &attributes;
}
