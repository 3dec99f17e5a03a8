// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <cstdint>
#include <random>
#include <string>

// Changes a message so that it stays JSON, and in most cases such that the number of arguments is
// still the one it states: changes of single bytes hardly ever get beyond the parser. Returns the
// text as it is if it is no JSON.
std::string mutate_json(const std::string& text, std::minstd_rand& random);

// Changes the input in `data` as libFuzzer does, or, as often, to what `mutate` makes of it.
// Returns the new size; what `mutate` makes may not fit, then libFuzzer's way is taken.
using Mutate = std::string (*)(const std::string& input, std::minstd_rand& random);
std::size_t mutate_input(std::uint8_t* data, std::size_t size, std::size_t max_size, unsigned seed,
                         Mutate mutate);
