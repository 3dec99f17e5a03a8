// SPDX-License-Identifier: Apache-2.0
// What is measured, and the forms in which it is read.

#pragma once

#include <map>
#include <string>
#include <tuple>
#include <vector>

#include "message.h"

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
    Message message;
    unsigned in_flight;
    bool has_steps;  // of the floor
};

// The settings in the order in which they are measured and shown.
std::vector<Setting> all_settings();

// By number of the setting, contender and placement.
using Results = std::map<std::tuple<std::size_t, std::string, Placement>, Series>;

// Returns the tables for a terminal.
std::string tables_of(const Results& results);

// Returns one line for each series, with a header.
std::string csv_of(const Results& results);

}  // namespace bench
