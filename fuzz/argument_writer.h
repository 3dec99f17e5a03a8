// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <json/value.h>

#include <random>
#include <string>

// Returns arguments of any types that the library takes. The id of each is its position: that is
// how the library numbers structs.
Json::Value make_arguments(std::size_t count, std::minstd_rand& random);

// Returns one of them, with the given id.
Json::Value make_argument(int id, std::minstd_rand& random);

// Returns the text without line breaks and blanks.
std::string one_line(const Json::Value& value);
