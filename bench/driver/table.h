#pragma once

#include <string>
#include <vector>

namespace bench {

using Row = std::vector<std::string>;

// Returns the rows, the first of which is the header, with their columns aligned: texts (the first
// `texts` columns) to the left, numbers to the right.
std::string aligned(const std::vector<Row>& rows, std::size_t texts);

// Returns a number with a fixed count of decimals.
std::string fixed(double number, int decimals);

}  // namespace bench
