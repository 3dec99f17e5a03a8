#pragma once

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "manager/base/words.h"
#include "manager/simulation/answers.h"
#include "manager/simulation/matcher.h"
#include "manager/simulation/messages.h"

namespace manager {

// Each function takes one kind of argument of the commands from `words`, and throws BadCommand if
// it is not there or wrong. `what` names the argument.

std::int64_t take_session(Words& words, const char* what = "SESSION");
/// One OPCODE:SUBSYS[,SUBSYS]...
Target take_target(Words& words);
/// One or more of them, up to the end.
std::vector<Target> take_targets(Words& words);
Step take_step(Words& words);
std::vector<std::string> step_names();
/// Nothing at the end.
std::optional<Opcode> take_optional_opcode(Words& words);
/// One word, or several between quotes.
std::string take_text(Words& words, const char* what);
/// TEXT, quoted or one word, or /REGEX/.
Matcher take_matcher(Words& words);
/// A duration in milliseconds of at most 24 hours.
std::chrono::milliseconds take_milliseconds(Words& words, const char* what);

template <typename Value>
using Choice = std::pair<const char*, Value>;

/// One of the words of `choices`; returns what stands beside it. `expected` lists the words.
template <typename Value, std::size_t size>
Value take_choice(Words& words, const std::array<Choice<Value>, size>& choices,
                  const char* expected) {
    const std::string word = words.word(expected);
    const auto choice = std::find_if(choices.begin(), choices.end(),
                                     [&](const auto& c) { return c.first == word; });
    if (choice != choices.end()) return choice->second;
    throw BadCommand(std::string(expected) + " expected, not \"" + word + '"');
}

/// An option of a command, and what takes its value.
template <typename Options>
struct Option {
    const char* name;
    void (*take)(Words& words, Options& options);
};

/// The options that come next, if any do.
template <typename Options, std::size_t size>
void take_options(Words& words, const std::array<Option<Options>, size>& known, Options& options) {
    while (words.at_option()) {
        const std::string name = words.word("option");
        const auto option =
            std::find_if(known.begin(), known.end(), [&](const auto& o) { return o.name == name; });
        if (option == known.end()) throw BadCommand("there is no option " + name);
        option->take(words, options);
    }
}

}  // namespace manager
