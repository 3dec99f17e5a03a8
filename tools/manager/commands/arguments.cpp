#include "manager/commands/arguments.h"

#include <fmt/format.h>

#include <algorithm>
#include <limits>

namespace manager {
namespace {

constexpr std::array<Choice<Step>, kStepCount> kSteps{{{"init", Step::Init},
                                                       {"auth", Step::Auth},
                                                       {"ready", Step::Ready},
                                                       {"permission", Step::Permission},
                                                       {"info", Step::Info}}};

bool at_quote(Words& words) {
    return words.peek() == '"' || words.peek() == '\'';
}

Opcode parse_opcode(std::string_view text) {
    return parse_hexadecimal(text, "OPCODE");
}

Subsystem parse_subsystem(std::string_view text) {
    return static_cast<Subsystem>(
        parse_decimal(text, "SUBSYS", std::numeric_limits<Subsystem>::max()));
}

Target parse_target(std::string_view text) {
    const std::size_t colon = text.find(':');
    if (colon == std::string_view::npos) {
        throw BadCommand(fmt::format("OPCODE:SUBSYS expected, not \"{}\"", text));
    }
    Target target{parse_opcode(text.substr(0, colon)), {}};
    std::string_view subsystems = text.substr(colon + 1);
    for (std::size_t comma = 0; comma != std::string_view::npos;) {
        comma = subsystems.find(',');
        target.subsystems.push_back(parse_subsystem(subsystems.substr(0, comma)));
        subsystems.remove_prefix(std::min(comma, subsystems.size() - 1) + 1);
    }
    return target;
}

}  // namespace

std::int64_t take_session(Words& words, const char* what) {
    return static_cast<std::int64_t>(
        parse_decimal(words.word(what), what, std::numeric_limits<std::int64_t>::max()));
}

Target take_target(Words& words) {
    return parse_target(words.word("OPCODE:SUBSYS"));
}

std::vector<Target> take_targets(Words& words) {
    std::vector<Target> targets{take_target(words)};
    while (!words.at_end()) targets.push_back(take_target(words));
    return targets;
}

Step take_step(Words& words) {
    return take_choice(words, kSteps, "init, auth, ready, permission or info");
}

std::vector<std::string> step_names() {
    std::vector<std::string> names;
    for (const auto& [name, step] : kSteps) names.emplace_back(name);
    return names;
}

std::optional<Opcode> take_optional_opcode(Words& words) {
    if (words.at_end()) return std::nullopt;
    return parse_opcode(words.word("OPCODE"));
}

std::string take_text(Words& words, const char* what) {
    return at_quote(words) ? words.delimited(what) : words.word(what);
}

Matcher take_matcher(Words& words) {
    if (at_quote(words)) return words.delimited("TEXT");
    if (words.peek() != '/') return words.word("TEXT or /REGEX/");
    try {
        return Matcher::regex(words.delimited("/REGEX/"));
    } catch (const std::invalid_argument& error) {
        throw BadCommand(error.what());
    }
}

std::chrono::milliseconds take_milliseconds(Words& words, const char* what) {
    const auto max = static_cast<std::uint64_t>(kMaxDuration.count());
    return std::chrono::milliseconds(parse_decimal(words.word(what), what, max));
}

}  // namespace manager
