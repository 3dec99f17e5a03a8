#include "driver/report.h"

#include <algorithm>
#include <cmath>

#include "driver/chart.h"
#include "driver/table.h"

namespace bench {
namespace {

struct Figures {
    double p50_us;
    double p99_us;
    double calls_per_second;
    double cpu_us;         // of the service, for each call
    double driver_cpu_us;  // likewise
};

float quantile(std::vector<float> values, double share) {
    const auto at = static_cast<std::ptrdiff_t>(share * static_cast<double>(values.size() - 1));
    std::nth_element(values.begin(), values.begin() + at, values.end());
    return *(values.begin() + at);
}

Figures figures_of(const Series& series) {
    const auto calls = static_cast<double>(series.latencies_us.size());
    return {quantile(series.latencies_us, 0.5), quantile(series.latencies_us, 0.99),
            calls / series.seconds, series.service_cpu_seconds / calls * 1e6,
            series.driver_cpu_seconds / calls * 1e6};
}

using AllFigures = std::map<std::tuple<Setting, std::string, Placement>, Figures>;

AllFigures all_figures(const Results& results) {
    AllFigures all;
    for (const auto& [key, series] : results) all.emplace(key, figures_of(series));
    return all;
}

// In the order of the contenders.
std::vector<std::string> measured_contenders(const AllFigures& all, const Setting& setting) {
    std::vector<std::string> names;
    for (const Contender& contender : contenders()) {
        if (all.count({setting, contender.name, Placement::kOneCore}) != 0) {
            names.emplace_back(contender.name);
        }
    }
    return names;
}

// The four ratios to the floor.
Row ratios(const Figures& own, const Figures& floor) {
    return {fixed(own.p50_us / floor.p50_us, 2), fixed(own.p99_us / floor.p99_us, 2),
            fixed(own.calls_per_second / floor.calls_per_second, 2),
            fixed(own.cpu_us / floor.cpu_us, 2)};
}

Row figure_cells(const Figures& figures) {
    return {fixed(figures.p50_us, 1), fixed(figures.p99_us, 1), fixed(figures.calls_per_second, 0),
            fixed(figures.cpu_us, 1)};
}

void append(Row* row, const Row& cells) {
    row->insert(row->end(), cells.begin(), cells.end());
}

void add_rows(const AllFigures& all, const Setting& setting, const std::string& label,
              std::vector<Row>* rows) {
    const Setting rivals{setting.message, setting.in_flight, Role::kRival};
    const Figures& floor = all.at({rivals, kFloorName, Placement::kOneCore});
    bool is_first = true;
    for (const std::string& name : measured_contenders(all, setting)) {
        const Figures& one_core = all.at({setting, name, Placement::kOneCore});
        const Figures& free = all.at({setting, name, Placement::kFree});
        Row row = {is_first ? label : "", name};
        append(&row, figure_cells(one_core));
        row.push_back(fixed(one_core.driver_cpu_us, 1));
        append(&row, ratios(one_core, floor));
        row.emplace_back("|");
        append(&row, figure_cells(free));
        rows->push_back(row);
        is_first = false;
    }
}

const Row kHeader = {"",      "",       "p50",   "p99", "calls/s", "CPU", "driver",  "p50 x",
                     "p99 x", "rate x", "CPU x", "|",   "p50",     "p99", "calls/s", "CPU"};

template <class Select, class Label>
std::string table_of(const AllFigures& all, const std::string& title, Select select, Label label) {
    std::vector<Row> rows = {kHeader};
    for (const Setting& setting : all_settings()) {
        if (select(setting)) add_rows(all, setting, label(setting), &rows);
    }
    return title + "\n\n" + aligned(rows, 2) + '\n';
}

constexpr char kLegend[] =
    "Left of the bar both ends run on one core, right of it anywhere. Times in microseconds; CPU:\n"
    "time that the service's process took for each call, driver: that the driver took; x: ratio "
    "to\n"
    "the floor.\n\n";

std::string calls(unsigned in_flight) {
    return std::to_string(in_flight) + " in flight";
}

bool is_in_flight(const Setting& setting) {
    return setting.role == Role::kRival && setting.message == small_request().name;
}

bool is_by_message(const Setting& setting) {
    return setting.role == Role::kRival && setting.in_flight == 1;
}

bool is_step(const Setting& setting) {
    return setting.role == Role::kStepOfFloor;
}

std::string message_label(const Setting& setting) {
    return setting.message;
}

std::string in_flight_label(const Setting& setting) {
    return calls(setting.in_flight);
}

// Marks by setting, a value of each contender where both ends run on one core.
template <class Select, class Label, class Value>
Chart chart_of(const AllFigures& all, const std::string& title, Marks marks, Select select,
               Label label, Value value) {
    Chart chart{title, marks, {}, {}};
    for (const Setting& setting : all_settings()) {
        if (!select(setting)) continue;
        chart.categories.push_back(label(setting));
        for (const std::string& name : measured_contenders(all, setting)) {
            chart.values[name].push_back(value(all.at({setting, name, Placement::kOneCore})));
        }
    }
    return chart;
}

}  // namespace

std::string tables_of(const Results& results) {
    const AllFigures all = all_figures(results);
    return kLegend + table_of(all, "One call at a time, by message", is_by_message, message_label) +
           table_of(all, "Several calls in flight: " + small_request().name, is_in_flight,
                    in_flight_label) +
           table_of(all, "Steps of the floor, one call at a time", is_step, message_label);
}

std::string csv_of(const Results& results) {
    std::string text =
        "placement,message,in_flight,contender,calls,p50_us,p99_us,calls_per_s,cpu_us,"
        "driver_cpu_us\n";
    for (const auto& [key, series] : results) {
        const auto& [setting, name, placement] = key;
        const Figures figures = figures_of(series);
        text += placement == Placement::kOneCore ? "one core" : "free";
        text += ",\"" + setting.message + "\"," + std::to_string(setting.in_flight) + ",\"" + name +
                "\"," + std::to_string(series.latencies_us.size());
        for (const double figure : {figures.p50_us, figures.p99_us, figures.calls_per_second,
                                    figures.cpu_us, figures.driver_cpu_us}) {
            text += ',' + fixed(figure, 3);
        }
        text += '\n';
    }
    return text;
}

std::string plot_of(const Results& results) {
    const AllFigures all = all_figures(results);
    return svg_of({chart_of(all, "Median latency in microseconds, both ends on one core",
                            Marks::kPoints, is_by_message, message_label,
                            [](const Figures& figures) { return figures.p50_us; }),
                   chart_of(all, "Calls per second, both ends on one core, " + small_request().name,
                            Marks::kLines, is_in_flight, in_flight_label,
                            [](const Figures& figures) { return figures.calls_per_second; })});
}

}  // namespace bench
