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
                                    const std::string& begun) {
    if (before.empty()) return command_names();
    std::vector<std::string> arguments = split(command_arguments(before.front()), " []");
    if (is_option(begun)) return arguments;
    arguments = without_options(arguments);
    const std::size_t position = without_options(before).size() - 1;
    if (position >= arguments.size()) return {};
    return choices(arguments[position], begun);
}

}  // namespace

std::vector<std::string> completions(const std::string& line) {
    const std::size_t begin = line.find_last_of(" \t") + 1;
    const std::string begun = line.substr(begin);
    std::vector<std::string> words = candidates(split(line.substr(0, begin), " \t"), begun);
    words.erase(std::remove_if(words.begin(), words.end(),
                               [&](const auto& w) { return w.substr(0, begun.size()) != begun; }),
                words.end());
    std::sort(words.begin(), words.end());
    return words;
}

}  // namespace manager
