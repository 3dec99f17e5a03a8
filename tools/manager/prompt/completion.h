#pragma once

#include <string>
#include <vector>

namespace manager {

/// The words that the last word of `line`, an unfinished command, can become, sorted: commands,
/// their options, the words that an argument is one of, and files. A directory ends in a slash.
std::vector<std::string> completions(const std::string& line);

}  // namespace manager
