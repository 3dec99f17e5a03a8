// SPDX-License-Identifier: Apache-2.0
// A service that is built without exceptions and without RTTI.

#include <vexon2_0_service.h>

int main() {
    vexon::Service service(0x2b, "doubler", "token");
    service.function("double", {"number"}, [](int number) -> vexon::Result<> {
        if (number > 1000) return vexon::Error(-5, "too large");
        return vexon::Reply().add("out", 2 * number);
    });
    service.function("scan", [](const vexon::Call& call) -> vexon::Result<> {
        if (auto error = call.check_permission("SCAN")) return *error;
        return vexon::Reply();
    });
    return service.run();
}
