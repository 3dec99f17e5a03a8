// Arguments for tasks, of all shapes.

#pragma once

#include <cstddef>
#include <random>
#include <string>

namespace soak {

using Random = std::mt19937_64;

struct Arguments {
    std::size_t count;
    std::string json;       // the array
    std::string rendering;  // what the service's render() makes of it
};

// Makes up arguments that the library accepts.
Arguments make_arguments(Random& random);

// Makes up an array of arguments that the library refuses while it decodes them.
std::string make_undecodable_arguments(Random& random);

}  // namespace soak
