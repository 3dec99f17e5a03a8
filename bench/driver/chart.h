#pragma once

#include <map>
#include <string>
#include <vector>

namespace bench {

enum class Marks { kPoints, kLines };

// Marks for each name, with a positive value for each category. Lines are for categories between
// which there could be others.
struct Chart {
    std::string title;
    Marks marks;
    std::vector<std::string> categories;
    std::map<std::string, std::vector<double>> values;
};

// Returns an SVG picture with the charts one below the other. The values' axis is logarithmic.
std::string svg_of(const std::vector<Chart>& charts);

}  // namespace bench
