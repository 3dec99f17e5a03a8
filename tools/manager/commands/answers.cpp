#include "manager/commands/arguments.h"
#include "manager/commands/parsers.h"

namespace manager {
namespace {

using RuleChange = void (SimulatedManager::*)(Step, std::optional<Opcode>);

Action parse_rule(Words& words, RuleChange change) {
    const Step step = take_step(words);
    const bool has_opcode = step == Step::Auth || step == Step::Ready;
    if (!has_opcode && !words.at_end())
        throw BadCommand("only auth and ready can be for one OPCODE");
    return [change, step, opcode = take_optional_opcode(words)](CommandContext& context) {
        (context.manager.*change)(step, opcode);
    };
}

using PermissionChange = void (SimulatedManager::*)(const std::string&);

Action parse_permission(Words& words, PermissionChange change) {
    return [change, name = take_text(words, "PERMISSION")](CommandContext& context) {
        (context.manager.*change)(name);
    };
}

/// How the result of a piece of information begins, and what the argument after that is called.
struct InfoKind {
    const char* prefix = "SUCCESS:";
    const char* argument = "VALUE";
};

constexpr std::array<Option<InfoKind>, 1> kInfoOptions{{
    {"--error",
     [](Words&, InfoKind& kind) {
         kind = {"ERROR:", "TEXT"};
     }},
}};

}  // namespace

Action parse_refuse(Words& words) {
    return parse_rule(words, &SimulatedManager::refuse);
}

Action parse_accept(Words& words) {
    return parse_rule(words, &SimulatedManager::accept);
}

Action parse_delay(Words& words) {
    const Step step = take_step(words);
    return [step, delay = take_milliseconds(words, "MS")](CommandContext& context) {
        context.manager.set_delay(step, delay);
    };
}

Action parse_drop(Words& words) {
    return [step = take_step(words)](CommandContext& context) {
        context.manager.set_drop(step, true);
    };
}

Action parse_twice(Words& words) {
    return [step = take_step(words)](CommandContext& context) {
        context.manager.set_twice(step, true);
    };
}

Action parse_answer(Words& words) {
    return [step = take_step(words)](CommandContext& context) {
        context.manager.set_drop(step, false);
        context.manager.set_twice(step, false);
        context.manager.set_delay(step, std::chrono::milliseconds(0));
    };
}

Action parse_grant(Words& words) {
    return parse_permission(words, &SimulatedManager::grant);
}

Action parse_deny(Words& words) {
    return parse_permission(words, &SimulatedManager::deny);
}

Action parse_info(Words& words) {
    const std::string name = take_text(words, "NAME");
    InfoKind kind;
    take_options(words, kInfoOptions, kind);
    return [name, text = kind.prefix + words.rest(kind.argument)](CommandContext& context) {
        context.manager.set_info(name, text);
    };
}

}  // namespace manager
