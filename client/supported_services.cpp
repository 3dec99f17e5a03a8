#include <mutex>

#include "client/IVexaClient.h"
#include "client/logging.h"

bool supported_services_add(unsigned int opcode, unsigned int subsystem) {
    std::lock_guard<std::mutex> lock(gServicesMutex);
    if (gServices.insert({opcode, subsystem}).second) {
        log_line(kProgress, "Added service 0x%08x::%d", opcode, static_cast<int>(subsystem));
    } else {
        log_line(kProgress, "Duplicate service registration 0x%08x::%u", opcode, subsystem);
    }
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
