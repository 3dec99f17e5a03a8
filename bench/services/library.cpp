// SPDX-License-Identifier: Apache-2.0
// A service on the library. Its log lines go through a logger that discards them. Its argument is
// the name of a contender, which may say that workers stay.

#include <android/log.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "message.h"
#include "task.h"

namespace {

constexpr char kApi[] =
    "\x02"
    R"({"Vexon":{"opcode":"1a","subsystems":[{"id":1}]}})";

int accept_session(int, vexa_req_t*, void*) {
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    const bool workers_stay = argc == 2 && std::strstr(argv[1], "stay") != nullptr;
    ::setenv("persist_vendor_vexon_clientlib_idle_workers", workers_stay ? "64" : "0", 1);
    __android_log_set_logger([](const __android_logger_data*, const char*) {});
    const auto id = static_cast<std::uint32_t>(vexa_svc_init());
    const auto* api = reinterpret_cast<const std::uint8_t*>(kApi);
    if (_vexa_svc_register_auth(id, bench::kOpcode, api, "token") != 0) return 1;
    if (_vexa_svc_ready(id, bench::kOpcode, accept_session, nullptr, bench::answer_checksum) != 0) {
        return 1;
    }
    std::getchar();  // until the driver is gone
    return 0;
}
