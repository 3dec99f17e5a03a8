#include "driver/table.h"

#include <algorithm>
#include <cstdio>

namespace bench {
namespace {

std::vector<std::size_t> widths_of(const std::vector<Row>& rows) {
    std::vector<std::size_t> widths;
    for (const Row& row : rows) {
        widths.resize(std::max(widths.size(), row.size()));
        for (std::size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], row[i].size());
    }
    return widths;
}

}  // namespace

std::string aligned(const std::vector<Row>& rows, std::size_t texts) {
    const auto widths = widths_of(rows);
    std::string text;
    for (const Row& row : rows) {
        std::string line;
        for (std::size_t i = 0; i < row.size(); ++i) {
            const std::string padding(widths[i] - row[i].size(), ' ');
            if (i > 0) line += "  ";
            line += i < texts ? row[i] + padding : padding + row[i];
        }
        line.erase(line.find_last_not_of(' ') + 1);
        text += line + '\n';
    }
    return text;
}

std::string fixed(double number, int decimals) {
    char text[64];
    std::snprintf(text, sizeof text, "%.*f", decimals, number);
    return text;
}

}  // namespace bench
