// The arguments of a call as a person writes them: values, or NAME=VALUE, in any order.
#pragma once

#include <string>
#include <vector>

#include "manager/base/words.h"
#include "manager/services/definition.h"

namespace manager {

struct GivenArgument {
    /// Empty for one that goes by its position.
    std::string name;
    std::string text;
    /// Where in the line the value begins.
    std::size_t position;
};

/// Takes one.
GivenArgument take_given_argument(Words& words);

/// The array of arguments as a task has it. Throws BadCommand, which points into `line`, if they
/// are not those of the function.
std::string encode_arguments(const Function& function, const std::vector<GivenArgument>& given,
                             const std::string& line);

}  // namespace manager
