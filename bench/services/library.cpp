// A service on the library. Its log lines go through a logger that discards them.

#include <android/log.h>

#include "message.h"
#include "services/until_told.h"
#include "task.h"

namespace {

constexpr char kApi[] =
    "\x02"
    R"({"Vexon":{"opcode":"1a","subsystems":[{"id":1}]}})";

int accept_session(int, vexa_req_t*, void*) {
    return 0;
}

bool offer_service() {
    const int id = vexa_svc_init();
    if (id < 0) return false;
    const auto service_id = static_cast<std::uint32_t>(id);
    const auto* api = reinterpret_cast<const std::uint8_t*>(kApi);
    return _vexa_svc_register_auth(service_id, bench::kOpcode, api, "token") == 0 &&
           _vexa_svc_ready(service_id, bench::kOpcode, accept_session, nullptr,
                           bench::answer_checksum) == 0;
}

}  // namespace

int main() {
    __android_log_set_logger([](const __android_logger_data*, const char*) {});
    if (!offer_service()) return 1;
    bench::wait_until_told();
    return 0;
}
