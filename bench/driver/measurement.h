// Closed loops with a number of calls in flight.

#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <tuple>
#include <vector>

#include "driver/contenders.h"

namespace bench {

enum class Placement { kOneCore, kFree };

// What was measured of one contender with one message. Adds up over all rounds.
struct Series {
    std::vector<float> latencies_us = {};
    double seconds = 0;
    double service_cpu_seconds = 0;
    double driver_cpu_seconds = 0;
};

// Calls that are compared with each other.
struct Setting {
    std::string message;
    unsigned in_flight;
    Role role;

    bool operator<(const Setting& other) const {
        return std::tie(message, in_flight, role) <
               std::tie(other.message, other.in_flight, other.role);
    }
};

// The settings in the order in which they are measured and shown: by message, by calls in flight,
// and the steps of the floor.
std::vector<Setting> all_settings();

struct Effort {
    unsigned rounds;
    unsigned burst_ms;  // for which one contender is called before the next one's turn
};

using Results = std::map<std::tuple<Setting, std::string, Placement>, Series>;

// Measures everything. All services run side by side and take turns, so that whatever else the
// machine does hits all of them alike.
Results measure_all(const Effort& effort);

// Has one service handle exactly `tasks` calls, each when the one before has left no trace, so that
// counts of what the service did can be repeated.
void drive(const std::string& contender, const std::vector<std::string>& under,
           const std::string& message, std::size_t tasks);

}  // namespace bench
