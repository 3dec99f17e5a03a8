#pragma once

#include <string>
#include <vector>

#include "manager/services/services.h"

namespace manager {

/// The words that the last word of `line`, an unfinished command, can become, sorted: commands,
/// their options, the words that an argument is one of, files, and what the services declare. A
/// word that goes on ends in a slash, a dot or an equals sign.
std::vector<std::string> completions(const std::string& line, const Services& services);

}  // namespace manager
