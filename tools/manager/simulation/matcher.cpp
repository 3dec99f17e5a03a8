// SPDX-License-Identifier: Apache-2.0
#include "manager/simulation/matcher.h"

#include <regex.h>

#include <array>
#include <memory>
#include <stdexcept>

namespace manager {

Matcher::Matcher(const std::string& text)
    : Matcher([text](const Packet& p) { return p.text.find(text) != std::string::npos; },
              "containing " + text) {}

// std::regex recurses once per character, and so overflows the stack on a large packet.
Matcher Matcher::regex(const std::string& expression) {
    const auto compiled = std::make_shared<regex_t>();
    const int error = regcomp(compiled.get(), expression.c_str(), REG_EXTENDED);
    if (error != 0) {
        std::array<char, 128> message{};
        regerror(error, compiled.get(), message.data(), message.size());
        throw std::invalid_argument("/" + expression +
                                    "/ is no regular expression: " + message.data());
    }
    const std::shared_ptr<const regex_t> shared(
        compiled.get(), [compiled](const regex_t*) { regfree(compiled.get()); });
    const auto is_found = [shared](const Packet& packet) {
        regmatch_t range{0, static_cast<regoff_t>(packet.text.size())};
        return regexec(shared.get(), packet.text.c_str(), 1, &range, REG_STARTEND) == 0;
    };
    return Matcher(is_found, "matching /" + expression + "/");
}

}  // namespace manager
