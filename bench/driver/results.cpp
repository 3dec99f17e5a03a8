// SPDX-License-Identifier: Apache-2.0
#include "driver/results.h"

#include <fmt/core.h>

#include "driver/service.h"
#include "quantile.h"

namespace bench {
namespace {

struct Figures {
    double p50_us;
    double p99_us;
    double calls_per_second;
    double cpu_us;         // of the service, for each call
    double driver_cpu_us;  // likewise
};

Figures figures_of(const Series& series) {
    const auto calls = static_cast<double>(series.latencies_us.size());
    return {quantile(series.latencies_us, 0.5), quantile(series.latencies_us, 0.99),
            calls / series.seconds, series.service_cpu_seconds / calls * 1e6,
            series.driver_cpu_seconds / calls * 1e6};
}

std::string cells(const Figures& figures) {
    return fmt::format("{:8.1f}{:8.1f}{:9.0f}{:8.1f}", figures.p50_us, figures.p99_us,
                       figures.calls_per_second, figures.cpu_us);
}

std::string ratios(const Figures& own, const Figures& floor) {
    return fmt::format("{:7.2f}{:7.2f}{:8.2f}{:7.2f}", own.p50_us / floor.p50_us,
                       own.p99_us / floor.p99_us, own.calls_per_second / floor.calls_per_second,
                       own.cpu_us / floor.cpu_us);
}

std::string rows_of(const Results& results, std::size_t setting, bool steps, std::string label) {
    std::string rows;
    for (const Contender& each : contenders()) {
        const auto one_core = results.find({setting, each.name, Placement::kOneCore});
        if (each.is_step != steps || one_core == results.end()) continue;
        const Figures own = figures_of(one_core->second);
        const Figures floor = figures_of(results.at({setting, kFloor, Placement::kOneCore}));
        const Figures free = figures_of(results.at({setting, each.name, Placement::kFree}));
        rows += fmt::format("{:24}{:22}{}{:8.1f}{}  |{}\n", label, each.name, cells(own),
                            own.driver_cpu_us, ratios(own, floor), cells(free));
        label.clear();
    }
    return rows;
}

// Has the messages with one call in flight or, unless `by_message`, the calls of one message.
std::string table_of(const Results& results, const std::string& title, bool by_message,
                     bool steps) {
    constexpr char kCells[] = "     p50     p99  calls/s     CPU";
    std::string table = fmt::format("{}\n\n{:46}{}  driver  p50 x  p99 x  rate x  CPU x  |{}\n",
                                    title, "", kCells, kCells);
    const std::vector<Setting> settings = all_settings();
    for (std::size_t i = 0; i < settings.size(); ++i) {
        const auto& [message, in_flight, has_steps] = settings[i];
        if (by_message ? in_flight != 1 : message.name != small_request().name) continue;
        table += rows_of(results, i, steps,
                         by_message ? message.name : fmt::format("{} in flight", in_flight));
    }
    return table + '\n';
}

constexpr char kLegend[] =
    "Left of the bar both ends run on one core, right of it anywhere. Times in microseconds; CPU:\n"
    "time that the service's process took for each call, driver: that the driver took; x: ratio "
    "to\nthe floor.\n\n";

}  // namespace

std::vector<Setting> all_settings() {
    std::vector<Setting> settings;
    for (const Message& each : whole_way_messages()) {
        const bool has_steps = each.name == small_request().name || each.name == "100 arguments";
        settings.push_back({each, 1, has_steps});
    }
    for (const unsigned in_flight : {4U, 16U, 64U}) {
        settings.push_back({small_request(), in_flight, false});
    }
    return settings;
}

std::string tables_of(const Results& results) {
    return kLegend + table_of(results, "One call at a time, by message", true, false) +
           table_of(results, "Several calls in flight: " + small_request().name, false, false) +
           table_of(results, "Steps of the floor, one call at a time", true, true);
}

std::string csv_of(const Results& results) {
    std::string text =
        "placement,message,in_flight,contender,calls,p50_us,p99_us,calls_per_s,cpu_us,"
        "driver_cpu_us\n";
    const std::vector<Setting> settings = all_settings();
    for (const auto& [key, series] : results) {
        const auto& [setting, contender, placement] = key;
        const Figures figures = figures_of(series);
        text += fmt::format("{},\"{}\",{},\"{}\",{},{:.3f},{:.3f},{:.3f},{:.3f},{:.3f}\n",
                            placement == Placement::kOneCore ? "one core" : "free",
                            settings[setting].message.name, settings[setting].in_flight, contender,
                            series.latencies_us.size(), figures.p50_us, figures.p99_us,
                            figures.calls_per_second, figures.cpu_us, figures.driver_cpu_us);
    }
    return text;
}

}  // namespace bench
