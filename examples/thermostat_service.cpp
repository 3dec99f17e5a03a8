// SPDX-License-Identifier: Apache-2.0
// A room thermostat that other programs reach through the Manager: an example of a service process.

#include <vexon2_0_service.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <mutex>
#include <numeric>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr std::int32_t kRefused = -3;

struct Period {
    std::uint8_t from_hour;
    std::uint8_t to_hour;
    double celsius;
    static constexpr auto kMembers = vexon::member_list(
        "from_hour", &Period::from_hour, "to_hour", &Period::to_hour, "celsius", &Period::celsius);
};

void require(bool condition, const char* otherwise) {
    if (!condition) throw vexon::Error(kRefused, otherwise);
}

void require_celsius(double celsius) {
    require(celsius >= 5 && celsius <= 30, "only 5 to 30 degrees are possible");
}

class Thermostat {
  public:
    // The session's user may do so if the Manager has granted it.
    vexon::Reply set_locked(const vexon::Call& call, bool locked) {
        call.require_permission("LOCK_THERMOSTAT");
        const std::lock_guard lock(mutex_);
        locked_ = locked;
        return vexon::Reply().add("locked", locked);
    }

    vexon::Reply set_target(double celsius) {
        require_celsius(celsius);
        const std::lock_guard lock(mutex_);
        require(!locked_, "the thermostat is locked");
        target_celsius_ = celsius;
        return vexon::Reply().add("target", celsius);
    }

    vexon::Reply set_period(const Period& period) {
        require(period.from_hour < period.to_hour && period.to_hour <= 24,
                "there is no such period");
        require_celsius(period.celsius);
        const std::lock_guard lock(mutex_);
        require(!locked_, "the thermostat is locked");
        std::fill(&schedule_[period.from_hour], schedule_.data() + period.to_hour, period.celsius);
        const auto unheated = std::count(schedule_.begin(), schedule_.end(), 0);
        return vexon::Reply().add("heated_hours", 24 - unheated);
    }

    vexon::Reply calibrate(const std::vector<double>& references) {
        require(!references.empty(), "there is no reference");
        for (const double reference : references) require_celsius(reference);
        const double sum = std::accumulate(references.begin(), references.end(), 0.0);
        const std::lock_guard lock(mutex_);
        sensor_error_ = room_celsius_ - sum / static_cast<double>(references.size());
        return vexon::Reply().add("sensor_error", sensor_error_);
    }

    // Takes its time, in which other calls run: it holds no lock while it waits.
    vexon::Reply measure() {
        const int at_once = ++measuring_;
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        --measuring_;
        const std::lock_guard lock(mutex_);
        room_celsius_ += (target_celsius_ - room_celsius_) / 4;
        return vexon::Reply().add("celsius", room_celsius_ - sensor_error_).add("at_once", at_once);
    }

  private:
    std::mutex mutex_;  // for all but `measuring_`
    bool locked_ = false;
    double room_celsius_ = 18;
    double target_celsius_ = 20;
    double sensor_error_ = 0;
    std::array<double, 24> schedule_{};  // by the hour, 0: not heated
    std::atomic<int> measuring_{0};
};

vexon::Reply read_outdoor(const vexon::Call& call) {
    const vexon::Info info = call.info("outdoor_celsius");
    require(static_cast<bool>(info), "the temperature is not known");
    return vexon::Reply().add("celsius", std::stod(info.text));
}

std::string describe(const vexon::Event& event) {
    using Kind = vexon::Event::Kind;
    const std::string session = "session " + std::to_string(event.session);
    switch (event.kind) {
        case Kind::kInService:
            return "in service";
        case Kind::kOutOfService:
            return "out of service: " + event.value;
        case Kind::kSessionStart:
            return session + " may start";
        case Kind::kSessionReady:
            return session + " is ready";
        case Kind::kSessionEnd:
            return session + " ends";
        case Kind::kPermission:
            return event.name + (event.granted ? " is granted" : " is withdrawn");
        default:
            return event.name + " is " + event.value;
    }
}

// Prints the line as a whole, so that lines of several threads do not mix.
void say(const vexon::Event& event) {
    std::fputs(("thermostat: " + describe(event) + "\n").c_str(), stdout);
    std::fflush(stdout);
}

}  // namespace

int main() {
    Thermostat room;
    vexon::Service service(0x1a, "thermostat", "thermostat");
    service.function("set_target", {"celsius"}, [&](double c) { return room.set_target(c); });
    service.function("set_locked", {"locked"}, [&](const vexon::Call& call, bool locked) {
        return room.set_locked(call, locked);
    });
    service.function("set_period", {"period"}, [&](const Period& p) { return room.set_period(p); });
    service.function(
        "calibrate", {"reference_celsius"},
        [&](const std::vector<double>& references) { return room.calibrate(references); });
    service.function("measure", [&] { return room.measure(); });
    service.function("read_outdoor", read_outdoor);
    service.on_state(say);
    return service.run();
}
