#include "manager/prompt/completion.h"

#include <algorithm>
#include <cctype>
#include <filesystem>

#include "manager/commands/arguments.h"
#include "manager/commands/commands.h"

namespace manager {
namespace {

std::vector<std::string> split(const std::string& text, const char* separators) {
    std::vector<std::string> words;
    for (std::size_t begin = 0; begin <= text.size();) {
        const std::size_t end = std::min(text.find_first_of(separators, begin), text.size());
        if (end > begin) words.push_back(text.substr(begin, end - begin));
        begin = end + 1;
    }
    return words;
}

bool is_option(const std::string& word) {
    return word.substr(0, 2) == "--";
}

std::vector<std::string> files(const std::string& begun) {
    const std::string folder = begun.substr(0, begun.rfind('/') + 1);
    std::vector<std::string> names;
    std::error_code error;
    for (std::filesystem::directory_iterator file(folder.empty() ? "." : folder, error), end;
         !error && file != end; file.increment(error)) {
        std::error_code ignored;
        const char* const mark = file->is_directory(ignored) ? "/" : "";
        names.push_back(folder + file->path().filename().string() + mark);
    }
    return names;
}

/// SERVICE. or, once that is there, SERVICE.FUNCTION for each of its functions.
std::vector<std::string> functions(const std::string& begun, const Services& services) {
    std::vector<std::string> names;
    for (const Service& service : services.list()) {
        const std::string name = service.name() + '.';
        if (begun.rfind(name, 0) != 0) {
            names.push_back(name);
            continue;
        }
        for (const Function& function : service.definition.functions) {
            names.push_back(name + function.name);
        }
    }
    return names;
}

/// NAME= for each argument of the function that is called, whose name `before` has.
std::vector<std::string> arguments(const std::vector<std::string>& before,
                                   const Services& services) {
    const std::size_t dot = std::min(before.at(1).rfind('.'), before.at(1).size() - 1);
    const auto service = services.find(before[1].substr(0, dot));
    const Function* const function =
        service ? service->definition.find(before[1].substr(dot + 1)) : nullptr;
    std::vector<std::string> names;
    if (function == nullptr) return names;
    for (const Field& field : function->args) {
        const std::string name = field.name + '=';
        const bool is_given = std::any_of(before.begin(), before.end(), [&](const auto& word) {
            return word.rfind(name, 0) == 0;
        });
        if (!is_given) names.push_back(name);
    }
    return names;
}

/// The words that stand for an argument in a usage, as in granted|denied or TYPE.
std::vector<std::string> choices(const std::string& argument, const std::string& begun) {
    if (argument == "COMMAND") return command_names();
    if (argument == "TYPE") return step_names();
    if (argument == "FILE") return files(begun);
    const bool is_literal = argument.find('|') != std::string::npos &&
                            std::islower(static_cast<unsigned char>(argument[0]));
    return is_literal ? split(argument, "|") : std::vector<std::string>();
}

/// The words that are no options, nor the values of options.
std::vector<std::string> without_options(const std::vector<std::string>& words) {
    std::vector<std::string> others;
    bool is_value = false;
    for (const std::string& word : words) {
        if (!is_value && !is_option(word)) others.push_back(word);
        is_value = is_option(word);
    }
    return others;
}

/// `before` are the words before the one that was begun.
std::vector<std::string> candidates(const std::vector<std::string>& before,
                                    const std::string& begun, const Services& services) {
    if (before.empty()) return command_names();
    const std::vector<std::string> usage = split(command_arguments(before.front()), " []");
    if (is_option(begun)) return usage;
    const std::vector<std::string> given = without_options(before);
    if (before.front() == "call" && given.size() > 1) return arguments(given, services);
    if (before.front() == "call" || before.front() == "describe") return functions(begun, services);
    const std::vector<std::string> expected = without_options(usage);
    if (given.size() > expected.size()) return {};
    return choices(expected[given.size() - 1], begun);
}

}  // namespace

std::vector<std::string> completions(const std::string& line, const Services& services) {
    const std::size_t begin = line.find_last_of(" \t") + 1;
    const std::string begun = line.substr(begin);
    std::vector<std::string> words =
        candidates(split(line.substr(0, begin), " \t"), begun, services);
    words.erase(std::remove_if(words.begin(), words.end(),
                               [&](const auto& w) { return w.substr(0, begun.size()) != begun; }),
                words.end());
    std::sort(words.begin(), words.end());
    return words;
}

}  // namespace manager
