// Results in the forms in which they are read.

#pragma once

#include <string>

#include "driver/measurement.h"

namespace bench {

// Returns the tables for a terminal.
std::string tables_of(const Results& results);

// Returns one line for each series, with a header.
std::string csv_of(const Results& results);

// Returns a plot of the median latency by message, and of the rate by calls in flight.
std::string plot_of(const Results& results);

}  // namespace bench
