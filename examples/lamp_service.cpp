// SPDX-License-Identifier: Apache-2.0
// Structs, vectors and a slow function that needs a permission, in 30 lines.
#include <vexon2_0_service.h>
#include <thread>

struct Scene {
    std::string name;
    std::vector<std::uint8_t> leds;
    static constexpr auto kMembers = vexon::member_list("name", &Scene::name, "leds", &Scene::leds);
};

struct Lamp {
    std::string name;
    bool on;
    static constexpr auto kMembers = vexon::member_list("name", &Lamp::name, "on", &Lamp::on);
};

int main() {
    vexon::Service service(0x3c, "lamps", "lamps");
    service.function("set_scene", {"scene"}, [](Scene scene) { return scene; });
    service.function("set_lamps", {"lamps"}, [](const std::vector<Lamp>& lamps) {
        return vexon::Reply().add("lamps", lamps.size());
    });
    service.function("scan", {"ms"}, [](const vexon::Call& call, unsigned ms) {
        call.require_permission("SCAN");
        std::this_thread::sleep_for(std::chrono::milliseconds(ms));
        return vexon::Reply().add("found", std::vector<std::string>{"lamp", "lock"});
    });
    return service.run();
}
