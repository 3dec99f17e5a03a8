// SPDX-License-Identifier: Apache-2.0
#include <glob.h>

#include <algorithm>
#include <cctype>

#include "manager/prompt/prompt.h"

namespace manager {
namespace {

using Strings = std::vector<std::string>;

/// The parts of the text between separators.
Strings split(const std::string& text, const char* separators) {
    Strings parts;
    for (std::size_t end = 0, begin = 0; end < text.size(); begin = end + 1) {
        end = std::min(text.find_first_of(separators, begin), text.size());
        if (end > begin) parts.push_back(text.substr(begin, end - begin));
    }
    return parts;
}

bool is_option(const std::string& word) {
    return word.rfind("--", 0) == 0;
}

Strings files(const std::string& begun) {
    glob_t found{};
    glob((begun + '*').c_str(), GLOB_MARK, nullptr, &found);
    const Strings names(found.gl_pathv, found.gl_pathv + found.gl_pathc);
    globfree(&found);
    return names;
}

/// SERVICE. or, once that is there, SERVICE.FUNCTION for each of its functions.
Strings functions(const std::string& begun, const Services& services) {
    Strings names;
    for (const auto& [opcode, service] : services.list()) {
        const std::string name = service.name() + '.';
        if (begun.rfind(name, 0) != 0) {
            names.push_back(name);
            continue;
        }
        for (const Json::Value& function : array_of(service.definition, "functions")) {
            names.push_back(name + name_of(function));
        }
    }
    return names;
}

/// NAME= for each argument of the function that is called, whose name `before` has.
Strings arguments(const Strings& before, const Services& services) {
    const std::size_t dot = std::min(before.at(1).rfind('.'), before.at(1).size() - 1);
    const auto service = services.find(before[1].substr(0, dot));
    if (!service) return {};
    Strings names;
    for (const Json::Value& field :
         array_of(service->function(before[1].substr(dot + 1)), "args")) {
        const std::string name = name_of(field) + '=';
        const bool is_given = std::any_of(before.begin(), before.end(), [&](const auto& word) {
            return word.rfind(name, 0) == 0;
        });
        if (!is_given) names.push_back(name);
    }
    return names;
}

/// The words that stand for an argument in a usage, as in granted|denied or TYPE.
Strings choices(const std::string& argument, const std::string& begun) {
    if (argument == "COMMAND") {
        Strings names;
        for (const Command& command : all_commands()) names.emplace_back(command.name);
        return names;
    }
    if (argument == "TYPE") return step_names();
    if (argument == "FILE") return files(begun);
    const bool is_literal = argument.find('|') != std::string::npos &&
                            std::islower(static_cast<unsigned char>(argument[0]));
    return is_literal ? split(argument, "|") : Strings();
}

/// The words that are no options, nor the values of options.
Strings without_options(const Strings& words) {
    Strings others;
    bool is_value = false;
    for (const std::string& word : words) {
        if (!is_value && !is_option(word)) others.push_back(word);
        is_value = is_option(word);
    }
    return others;
}

/// `before` are the words before the one that was begun.
Strings candidates(const Strings& before, const std::string& begun, const Services& services) {
    if (before.empty()) return choices("COMMAND", begun);
    const std::string& command = before.front();
    Strings usage;
    for (const Command& known : all_commands()) {
        if (known.name == command) usage = split(known.arguments, "[] ");
    }
    if (is_option(begun)) return usage;
    const Strings given = without_options(before);
    if (command == "call" && given.size() > 1) return arguments(given, services);
    if (command == "call" || command == "describe") return functions(begun, services);
    const Strings expected = without_options(usage);
    if (given.empty() || given.size() > expected.size()) return {};
    return choices(expected[given.size() - 1], begun);
}

}  // namespace

Strings completions(const std::string& line, const Services& services) {
    const std::size_t begin = line.find_last_of(" \t") + 1;
    const std::string begun = line.substr(begin);
    Strings words;
    for (const auto& word : candidates(split(line.substr(0, begin), " \t"), begun, services)) {
        if (word.rfind(begun, 0) == 0) words.push_back(word);
    }
    std::sort(words.begin(), words.end());
    return words;
}

}  // namespace manager
