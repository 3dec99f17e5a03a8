#include "manager/commands/typed_arguments.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>

#include "manager/base/json.h"

namespace manager {
namespace {

/// Places the arguments of one call.
class Encoder {
  public:
    Encoder(const Function& function, const std::string& line)
        : function_(function), line_(line), values_(function.args.size()) {}

    void place(const GivenArgument& argument);
    std::string text() const;

  private:
    std::size_t index_of(const GivenArgument& argument) const;
    [[noreturn]] void fail(const std::string& what, std::size_t position) const {
        throw BadCommand(
            fmt::format("{}{}\n    {}", what, excerpt(line_, position), signature(function_)));
    }

    const Function& function_;
    const std::string& line_;
    std::size_t next_ = 0;
    /// What each argument of the function becomes; empty while it is not given.
    std::vector<std::string> values_;
};

std::size_t Encoder::index_of(const GivenArgument& argument) const {
    const Fields& args = function_.args;
    if (argument.name.empty()) {
        if (next_ < args.size()) return next_;
        fail(fmt::format("{} takes {} arguments", function_.name, args.size()), argument.position);
    }
    const auto field = std::find_if(args.begin(), args.end(),
                                    [&](const Field& f) { return f.name == argument.name; });
    if (field != args.end()) return static_cast<std::size_t>(field - args.begin());
    fail(fmt::format("{} has no argument \"{}\"", function_.name, argument.name),
         argument.position - argument.name.size() - 1);
}

void Encoder::place(const GivenArgument& argument) {
    const std::size_t index = index_of(argument);
    next_ = index + 1;
    const Field& field = function_.args[index];
    if (!values_[index].empty()) fail(field.name + " is given twice", argument.position);
    const std::string source = is_text(field) ? json_text(argument.text) : argument.text;
    JsonError error;
    const auto value = parse_json(source, &error);
    if (!value) {
        fail(fmt::format("{} has to be {}: {}", field.name, describe(field), error.what),
             argument.position + error.offset);
    }
    if (!is_strict_json('[' + source + ']')) {
        fail(field.name + " has to be JSON that all readers take", argument.position);
    }
    Faults faults;
    check(field, *value, field.name, faults);
    if (!faults.empty()) fail(faults.front().what, argument.position + faults.front().offset);
    values_[index] = encode(field, index, *value, source);
}

std::string Encoder::text() const {
    std::vector<std::string> texts;
    for (std::size_t i = 0; i < values_.size(); ++i) {
        const Field& field = function_.args[i];
        if (!values_[i].empty()) {
            texts.push_back(values_[i]);
        } else if (!field.optional && has_value(field)) {
            fail(fmt::format("{} is missing: {}", field.name, describe(field)), line_.size());
        }
    }
    return fmt::format("[{}]", fmt::join(texts, ","));
}

}  // namespace

GivenArgument take_given_argument(Words& words) {
    const std::string name = words.name().value_or("");
    const char first = words.peek();
    const bool is_quoted = first == '"' || first == '\'';
    const std::size_t position = words.position() + (is_quoted ? 1 : 0);
    const char* const what = name.empty() ? "VALUE" : name.c_str();
    if (is_quoted) return {name, words.delimited(what), position};
    const bool is_json = first == '[' || first == '{';
    return {name, is_json ? words.json(what) : words.word(what), position};
}

std::string encode_arguments(const Function& function, const std::vector<GivenArgument>& given,
                             const std::string& line) {
    Encoder encoder(function, line);
    for (const GivenArgument& argument : given) encoder.place(argument);
    return encoder.text();
}

}  // namespace manager
