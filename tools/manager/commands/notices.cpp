#include "manager/commands/arguments.h"
#include "manager/commands/parsers.h"

namespace manager {
namespace {

constexpr std::array<Option<Affected>, 2> kOptions{{
    {"--session",
     [](Words& words, Affected& affected) { affected.session = take_session(words, "--session"); }},
    {"--package",
     [](Words& words, Affected& affected) { affected.package = take_text(words, "--package"); }},
}};

constexpr std::array<Choice<bool>, 2> kGrants{{{"granted", true}, {"denied", false}}};

Affected take_affected(Words& words) {
    Affected affected;
    take_options(words, kOptions, affected);
    return affected;
}

Action sending(std::string text) {
    return [text = std::move(text)](CommandContext& context) {
        send_to_every_client(context.manager, text);
    };
}

using ChangeMessage = std::string (*)(const std::string& name, const std::string& value,
                                      const Affected& affected);

Action parse_change(Words& words, ChangeMessage message) {
    const std::string name = take_text(words, "NAME");
    const std::string value = take_text(words, "VALUE");
    return sending(message(name, value, take_affected(words)));
}

}  // namespace

Action parse_permission_change(Words& words) {
    const std::string permission = take_text(words, "PERMISSION");
    const bool granted = take_choice(words, kGrants, "granted or denied");
    return sending(permission_change_message(permission, granted, take_affected(words)));
}

Action parse_state_change(Words& words) {
    return parse_change(words, state_change_message);
}

Action parse_setting_change(Words& words) {
    return parse_change(words, setting_change_message);
}

}  // namespace manager
