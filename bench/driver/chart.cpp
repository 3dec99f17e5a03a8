#include "driver/chart.h"

#include <algorithm>
#include <cmath>

#include "driver/table.h"

namespace bench {
namespace {

constexpr double kWidth = 900;
constexpr double kHeight = 420;
constexpr double kLeft = 110;
constexpr double kRight = 780;
constexpr double kTop = 50;
constexpr double kBottom = 320;
constexpr double kApart = 8;  // points of one category
const char* const kColours[] = {"#1b9e77", "#d95f02", "#7570b3", "#e7298a"};

// The powers of ten around all values.
struct Axis {
    double low;
    double high;

    double y(double value) const {
        return kBottom - (std::log10(value) - low) / (high - low) * (kBottom - kTop);
    }
};

Axis axis_of(const Chart& chart) {
    double least = INFINITY;
    double most = 0;
    for (const auto& [name, values] : chart.values) {
        least = std::min(least, *std::min_element(values.begin(), values.end()));
        most = std::max(most, *std::max_element(values.begin(), values.end()));
    }
    return {std::floor(std::log10(least)), std::ceil(std::log10(most))};
}

double x_of(const Chart& chart, std::size_t category) {
    return kLeft + (kRight - kLeft) * (static_cast<double>(category) + 0.5) /
                       static_cast<double>(chart.categories.size());
}

std::string text_at(double x, double y, const std::string& attributes, const std::string& text) {
    return "<text x=\"" + fixed(x, 1) + "\" y=\"" + fixed(y, 1) + "\" " + attributes + ">" + text +
           "</text>\n";
}

std::string grid_of(const Axis& axis) {
    std::string svg;
    for (double power = axis.low; power <= axis.high; ++power) {
        const double value = std::pow(10, power);
        const std::string y = fixed(axis.y(value), 1);
        svg += "<path d=\"M" + fixed(kLeft, 0) + ' ' + y + 'H' + fixed(kRight, 0) +
               "\" stroke=\"#ccc\"/>\n" +
               text_at(kLeft - 8, axis.y(value) + 4, "text-anchor=\"end\"", fixed(value, 0));
    }
    return svg;
}

std::string labels_of(const Chart& chart) {
    std::string svg;
    for (std::size_t i = 0; i < chart.categories.size(); ++i) {
        const double x = x_of(chart, i);
        const std::string turn = "text-anchor=\"end\" transform=\"rotate(-30 " + fixed(x, 1) + ' ' +
                                 fixed(kBottom + 16, 1) + ")\"";
        svg += text_at(x, kBottom + 16, turn, chart.categories[i]);
    }
    return svg;
}

// Points stand `aside` of the middle of their category.
std::string marks_of(const Chart& chart, const Axis& axis, const std::vector<double>& values,
                     double aside, const std::string& colour) {
    std::string path;
    std::string points;
    for (std::size_t i = 0; i < values.size(); ++i) {
        const std::string x = fixed(x_of(chart, i) + aside, 1);
        const std::string y = fixed(axis.y(values[i]), 1);
        path += (i == 0 ? 'M' : 'L') + x + ' ' + y;
        points += "<circle cx=\"" + x + "\" cy=\"" + y + "\" r=\"3.5\" fill=\"" + colour + "\"/>\n";
    }
    if (chart.marks == Marks::kPoints) return points;
    return "<path d=\"" + path + "\" fill=\"none\" stroke=\"" + colour + "\"/>\n" + points;
}

double aside_of(const Chart& chart, std::size_t number) {
    if (chart.marks == Marks::kLines) return 0;
    return kApart *
           (static_cast<double>(number) - static_cast<double>(chart.values.size() - 1) / 2);
}

std::string all_marks_of(const Chart& chart, const Axis& axis) {
    std::string svg;
    std::size_t number = 0;
    for (const auto& [name, values] : chart.values) {
        const std::string colour = kColours[number % std::size(kColours)];
        svg += marks_of(chart, axis, values, aside_of(chart, number), colour) +
               text_at(kRight + 12, kTop + 20 * static_cast<double>(number),
                       "fill=\"" + colour + "\"", name);
        ++number;
    }
    return svg;
}

std::string picture_of(const Chart& chart) {
    const Axis axis = axis_of(chart);
    return text_at(kLeft, 24, "font-weight=\"bold\"", chart.title) + grid_of(axis) +
           labels_of(chart) + all_marks_of(chart, axis);
}

}  // namespace

std::string svg_of(const std::vector<Chart>& charts) {
    const double height = kHeight * static_cast<double>(charts.size());
    std::string svg = "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" + fixed(kWidth, 0) +
                      "\" height=\"" + fixed(height, 0) +
                      "\" font-family=\"sans-serif\" font-size=\"12\">\n"
                      "<rect width=\"100%\" height=\"100%\" fill=\"white\"/>\n";
    double top = 0;
    for (const Chart& chart : charts) {
        svg +=
            "<g transform=\"translate(0 " + fixed(top, 0) + ")\">\n" + picture_of(chart) + "</g>\n";
        top += kHeight;
    }
    return svg + "</svg>\n";
}

}  // namespace bench
