// SPDX-License-Identifier: Apache-2.0
// Makes misuse of jsoncpp end the process, as it does where jsoncpp is built without exceptions: no
// test passes that needs one of its exceptions.

#include <json/json.h>

#include <cstdio>
#include <cstdlib>

namespace {

[[noreturn]] void end_process(const Json::String& message) {
    std::fprintf(stderr, "misuse of jsoncpp: %s\n", message.c_str());
    std::abort();
}

}  // namespace

// They take the place of jsoncpp's own.
namespace Json {

[[noreturn, gnu::visibility("default")]] void throwRuntimeError(const String& message) {
    end_process(message);
}

[[noreturn, gnu::visibility("default")]] void throwLogicError(const String& message) {
    end_process(message);
}

}  // namespace Json
