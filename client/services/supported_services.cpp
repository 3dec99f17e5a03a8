// SPDX-License-Identifier: Apache-2.0
#include "client/services/supported_services.h"

#include <mutex>

#include "client/utility/logging.h"

namespace {

void add(ServiceKey service) REQUIRES(gServicesMutex) {
    const auto [opcode, subsystem] = service;
    if (gServices.insert(service).second) {
        log_line(kProgress, "Added service 0x%08x::%d", opcode, static_cast<int>(subsystem));
    } else {
        log_line(kProgress, "Duplicate service registration 0x%08x::%u", opcode, subsystem);
    }
}

}  // namespace

bool add_supported_service(ServiceKey service, Life life) {
    std::lock_guard<std::mutex> lock(gServicesMutex);
    if (is_over(life)) return false;
    add(service);
    return true;
}

bool supported_services_add(unsigned int opcode, unsigned int subsystem) {
    std::lock_guard<std::mutex> lock(gServicesMutex);
    add({opcode, subsystem});
    return true;
}

bool is_service_supported(unsigned int opcode, unsigned int subsystem) {
    std::lock_guard<std::mutex> lock(gServicesMutex);
    return gServices.count({opcode, subsystem}) != 0;
}

void supported_services_clear() {
    std::lock_guard<std::mutex> lock(gServicesMutex);
    gServices.clear();
}
