#include "manager/simulation/matcher.h"

#include <regex.h>

#include <array>
#include <memory>
#include <stdexcept>

namespace manager {
namespace {

// std::regex recurses once per character, and so overflows the stack on a large packet.
class Expression {
  public:
    explicit Expression(const std::string& text) {
        const int error = regcomp(&compiled_, text.c_str(), REG_EXTENDED);
        if (error == 0) return;
        std::array<char, 128> message{};
        regerror(error, &compiled_, message.data(), message.size());
        throw std::invalid_argument("/" + text + "/ is no regular expression: " + message.data());
    }
    ~Expression() { regfree(&compiled_); }
    Expression(const Expression&) = delete;
    Expression& operator=(const Expression&) = delete;

    bool found_in(const std::string& text) const {
        regmatch_t range{0, static_cast<regoff_t>(text.size())};
        return regexec(&compiled_, text.c_str(), 1, &range, REG_STARTEND) == 0;
    }

  private:
    regex_t compiled_{};
};

}  // namespace

Matcher::Matcher(std::string text) : description_("containing " + text) {
    matches_ = [text = std::move(text)](const Packet& packet) {
        return packet.text.find(text) != std::string::npos;
    };
}

Matcher Matcher::regex(const std::string& expression) {
    const auto compiled = std::make_shared<const Expression>(expression);
    Matcher matcher([compiled](const Packet& packet) { return compiled->found_in(packet.text); });
    matcher.description_ = "matching /" + expression + "/";
    return matcher;
}

}  // namespace manager
