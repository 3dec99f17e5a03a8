#pragma once

#include <map>
#include <string>
#include <vector>

namespace bench {

// A line for each name, with a positive value for each category.
struct Chart {
    std::string title;
    std::vector<std::string> categories;
    std::map<std::string, std::vector<double>> lines;
};

// Returns an SVG picture with the charts one below the other. The values' axis is logarithmic.
std::string svg_of(const std::vector<Chart>& charts);

}  // namespace bench
