#include "driver/contenders.h"

#include <sys/socket.h>
#include <unistd.h>

#include <functional>

namespace bench {

const char* const kFloorName = "floor";

namespace {

using Under = std::vector<std::string>;

constexpr char kManagerPath[] = "/dev/socket/vexa";

Service start_library(const Under& under) {
    const Listener listener(kManagerPath, SOCK_SEQPACKET);
    auto child = std::make_unique<Child>(Under{"bench-service-library"}, under);
    return {std::move(child), make_packet_caller(listener, Introduction::kFull, Answer::kChecksum)};
}

Service start_floor(const std::string& last_step, const Under& under) {
    const std::string path = "/dev/socket/floor-" + last_step;
    const Listener listener(path, SOCK_SEQPACKET);
    auto child = std::make_unique<Child>(Under{"bench-service-floor", path, last_step}, under);
    const Answer answer = last_step == "whole" ? Answer::kChecksum : Answer::kNone;
    return {std::move(child), make_packet_caller(listener, Introduction::kNone, answer)};
}

Service start_sd_bus(const Under& under) {
    const std::string path = "/dev/socket/sd-bus";
    const Listener listener(path, SOCK_STREAM);
    auto child = std::make_unique<Child>(Under{"bench-service-sd-bus", path}, under);
    return {std::move(child), make_sd_bus_caller(listener)};
}

std::optional<Service> start_grpc(const Under& under) {
    const std::string path = "/dev/socket/grpc";
    if (!has_grpc()) return std::nullopt;
    auto child = std::make_unique<Child>(Under{"bench-service-grpc", path}, under);
    return Service{std::move(child), make_grpc_caller(path)};
}

struct Entry {
    Contender contender;
    std::function<std::optional<Service>(const Under&)> start;
};

const std::vector<Entry>& entries() {
    static const std::vector<Entry> all = {
        {{"library", Role::kRival}, start_library},
        {{kFloorName, Role::kRival}, [](const Under& u) { return start_floor("whole", u); }},
        {{"sd-bus", Role::kRival}, start_sd_bus},
        {{"gRPC", Role::kRival}, start_grpc},
        {{"echo", Role::kStepOfFloor}, [](const Under& u) { return start_floor("echo", u); }},
        {{"+ parse", Role::kStepOfFloor}, [](const Under& u) { return start_floor("parse", u); }},
        {{"+ thread", Role::kStepOfFloor}, [](const Under& u) { return start_floor("thread", u); }},
    };
    return all;
}

}  // namespace

const std::vector<Contender>& contenders() {
    static const std::vector<Contender> all = [] {
        std::vector<Contender> list;
        for (const Entry& entry : entries()) list.push_back(entry.contender);
        return list;
    }();
    return all;
}

std::optional<Service> start_service(const std::string& name, const Under& under) {
    for (const Entry& entry : entries()) {
        if (entry.contender.name == name) return entry.start(under);
    }
    throw CallFailed("there is no contender " + name);
}

}  // namespace bench
