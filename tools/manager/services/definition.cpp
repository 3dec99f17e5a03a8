#include "manager/services/definition.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <array>
#include <limits>
#include <set>

#include "manager/base/json.h"
#include "manager/base/words.h"

namespace manager {
namespace {

using std::numeric_limits;

struct Scalar {
    const char* name;
    const char* example;
    bool (*accepts)(const Json::Value& value);
    /// The range of an integer.
    std::int64_t min = 0;
    std::uint64_t max = 0;
};

template <typename T>
constexpr Scalar integer(const char* name) {
    const auto accepts = [](const Json::Value& value) {
        if constexpr (std::is_signed_v<T>) {
            return value.isInt64() && value.asInt64() >= numeric_limits<T>::min() &&
                   value.asInt64() <= numeric_limits<T>::max();
        } else {
            return value.isUInt64() && value.asUInt64() <= numeric_limits<T>::max();
        }
    };
    return {name, "0", accepts, static_cast<std::int64_t>(numeric_limits<T>::min()),
            static_cast<std::uint64_t>(numeric_limits<T>::max())};
}

bool is_string(const Json::Value& value) {
    return value.isString();
}

constexpr std::array<Scalar, 13> kScalars{{
    integer<std::uint8_t>("uint8"),
    integer<std::uint16_t>("uint16"),
    integer<std::uint32_t>("uint32"),
    integer<std::uint64_t>("uint64"),
    integer<std::int8_t>("int8"),
    integer<std::int16_t>("int16"),
    integer<std::int32_t>("int32"),
    integer<std::int64_t>("int64"),
    integer<std::int32_t>("enum"),
    {"double", "0.0", [](const Json::Value& value) { return value.isNumeric(); }},
    {"boolean", "false", [](const Json::Value& value) { return value.isBool(); }},
    {"string", "\"\"", is_string},
    {"bnry_blb", "\"\"", is_string},
}};

const Scalar* find_scalar(const std::string& name) {
    const auto* const scalar = std::find_if(kScalars.begin(), kScalars.end(),
                                            [&](const Scalar& s) { return s.name == name; });
    return scalar == kScalars.end() ? nullptr : scalar;
}

bool has_no_value(const std::string& type) {
    return type == "cb" || type == "none";
}

std::string kind_of(const Json::Value& value) {
    if (value.isNumeric() || value.isBool()) return value.asString();
    constexpr std::array<const char*, 8> kKinds{"null",   "", "",         "",
                                                "a text", "", "an array", "an object"};
    return kKinds.at(value.type());
}

std::size_t offset_of(const Json::Value& value) {
    return static_cast<std::size_t>(std::max<std::ptrdiff_t>(value.getOffsetStart(), 0));
}

/// Reads a definition from top to bottom.
class Reader {
  public:
    explicit Reader(Faults& faults) : faults_(faults) {}

    Definition read(const Json::Value& api_def);

  private:
    void fault(const Json::Value& at, const std::string& path, const std::string& what) {
        faults_.push_back({path + ": " + what, offset_of(at)});
    }
    std::string name(const Json::Value& owner, const std::string& path,
                     std::set<std::string>* others);
    const Json::Value& array(const Json::Value& owner, const char* key, const std::string& path,
                             bool required = false);
    Function function(const Json::Value& value, const std::string& path,
                      std::set<std::string>* others);
    enum class Place { Argument, Member, Result };
    Fields fields(const Json::Value& array, const std::string& path, Place place);
    Field field(const Json::Value& value, const std::string& path, Place place);

    Faults& faults_;
};

std::string at(const std::string& path, const char* key, Json::ArrayIndex index) {
    return fmt::format("{}.{}[{}]", path, key, index);
}

std::string Reader::name(const Json::Value& owner, const std::string& path,
                         std::set<std::string>* others) {
    const Json::Value& value = member(owner, "name");
    if (!value.isString() || value.asString().empty()) {
        fault(owner, path, value.isNull() ? "\"name\" is missing" : "\"name\" is empty or no text");
        return {};
    }
    const std::string text = value.asString();
    const bool is_plain = std::none_of(
        text.begin(), text.end(), [](char c) { return c == '"' || c == '\\' || is_control(c); });
    if (!is_plain) fault(value, path, "a name is without quotes, backslashes, control characters");
    if (others != nullptr && !others->insert(text).second) {
        fault(value, path, fmt::format("there is another \"{}\"", text));
    }
    return text;
}

/// An empty array if it is missing or none.
const Json::Value& Reader::array(const Json::Value& owner, const char* key, const std::string& path,
                                 bool required) {
    static const Json::Value kNone(Json::arrayValue);
    const Json::Value& value = member(owner, key);
    if (value.isArray() && !(required && value.empty())) return value;
    if (required || !value.isNull()) {
        fault(value.isNull() ? owner : value, path,
              fmt::format("\"{}\" {}", key,
                          value.isNull() ? "is missing" : "has to be an array, and not empty"));
    }
    return kNone;
}

Definition Reader::read(const Json::Value& api_def) {
    const Json::Value& service = member(api_def, "Vexon");
    Definition definition;
    if (!service.isObject()) {
        fault(api_def, "definition", "\"Vexon\" is missing");
        return definition;
    }
    const Json::Value& opcode = member(service, "opcode");
    if (const auto number = hexadecimal(opcode.isString() ? opcode.asString() : "")) {
        definition.opcode = *number;
    } else {
        fault(service, "Vexon", "\"opcode\" has to be a hexadecimal text");
    }
    definition.name = name(service, "Vexon", nullptr);
    for (const Json::Value& subsystem : array(service, "subsystems", "Vexon", true)) {
        const Json::Value& id = member(subsystem, "id");
        if (id.isUInt()) {
            definition.subsystems.push_back(id.asUInt());
        } else {
            fault(subsystem, "Vexon.subsystems", "an \"id\" has to be a number of 32 bits");
        }
    }
    std::set<std::string> names;
    const Json::Value& functions = array(service, "functions", "Vexon");
    for (Json::ArrayIndex i = 0; i < functions.size(); ++i) {
        definition.functions.push_back(function(functions[i], at("Vexon", "functions", i), &names));
    }
    return definition;
}

Function Reader::function(const Json::Value& value, const std::string& path,
                          std::set<std::string>* others) {
    Function result;
    result.name = name(value, path, others);
    result.args = fields(array(value, "args", path), path + ".args", Place::Argument);
    if (!member(value, "results").isNull()) {
        result.results = fields(array(value, "results", path), path + ".results", Place::Result);
    }
    return result;
}

Fields Reader::fields(const Json::Value& array, const std::string& path, Place place) {
    Fields result;
    std::set<std::string> names;
    for (Json::ArrayIndex i = 0; i < array.size(); ++i) {
        const std::string own = fmt::format("{}[{}]", path, i);
        Field read = field(array[i], own, place);
        read.name = name(array[i], own, &names);
        const Json::Value& id = member(array[i], "id");
        if (place != Place::Result && !(id.isUInt() && id.asUInt() == i)) {
            fault(array[i], own, fmt::format("\"id\" has to be its position, {}", i));
        }
        result.push_back(std::move(read));
    }
    return result;
}

Field Reader::field(const Json::Value& value, const std::string& path, Place place) {
    const auto text = [&](const char* key) {
        const Json::Value& found = member(value, key);
        return found.isString() ? found.asString() : std::string();
    };
    Field result{{}, text("type"), text("vec_type")};
    const bool is_vector = result.type == "vector";
    const std::string& type = is_vector ? result.element : result.type;
    const char* const key = is_vector ? "vec_type" : "type";
    const bool has_members = type == "struct";
    if (member(value, key).isNull()) {
        fault(value, path, fmt::format("\"{}\" is missing", key));
    } else if (!has_members && find_scalar(type) == nullptr && (is_vector || !has_no_value(type))) {
        fault(member(value, key), path, fmt::format("there is no {} \"{}\"", key, type));
    } else if (is_vector && has_members && place == Place::Member) {
        fault(value, path, "a vector of structs may be an argument only");
    }
    if (has_members) {
        const Place inside = place == Place::Result ? place : Place::Member;
        result.members = fields(array(value, "members", path, true), path + ".members", inside);
    }
    const Json::Value& optional = member(value, "optional");
    if (!optional.isNull() && !optional.isBool()) {
        fault(optional, path, "\"optional\" has to be true or false");
    }
    result.optional = optional.isBool() && optional.asBool();
    return result;
}

std::string list(const Fields& fields) {
    std::vector<std::string> texts;
    for (const Field& field : fields) {
        texts.push_back(
            fmt::format("{}{}: {}", field.name, field.optional ? "?" : "", describe(field)));
    }
    return fmt::format("{}", fmt::join(texts, ", "));
}

/// The field that each element of a vector is.
Field element_of(const Field& field) {
    return {field.name, field.element, {}, field.members};
}

std::string encode_content(const Field& field, const Json::Value& value, const std::string& source);

std::string encode_members(const Field& field, const Json::Value& value,
                           const std::string& source) {
    std::vector<std::string> texts;
    for (std::size_t i = 0; i < field.members.size(); ++i) {
        const std::string& name = field.members[i].name;
        if (value.isMember(name)) {
            texts.push_back(encode(field.members[i], i, value[name], source));
        }
    }
    return fmt::format(R"("members":[{}])", fmt::join(texts, ","));
}

/// Everything but the id and the type.
std::string encode_content(const Field& field, const Json::Value& value,
                           const std::string& source) {
    if (field.type == "struct") return encode_members(field, value, source);
    if (field.type != "vector") return "\"value\":" + json_source(value, source);
    if (field.element != "struct") {
        return fmt::format(R"("vec_type":"{}","value":{})", field.element,
                           json_source(value, source));
    }
    std::vector<std::string> texts;
    for (const Json::Value& element : value) {
        texts.push_back('{' + encode_members(field, element, source) + '}');
    }
    return fmt::format(R"("vec_type":"struct","value":[{}])", fmt::join(texts, ","));
}

}  // namespace

const Function* Definition::find(const std::string& function) const {
    const auto found = std::find_if(functions.begin(), functions.end(),
                                    [&](const Function& f) { return f.name == function; });
    return found == functions.end() ? nullptr : &*found;
}

Definition read_definition(const Json::Value& api_def, Faults& faults) {
    return Reader(faults).read(api_def);
}

std::string describe(const Field& field) {
    if (field.type == "vector") return describe(element_of(field)) + "[]";
    return field.type == "struct" ? fmt::format("struct {{{}}}", list(field.members)) : field.type;
}

std::string signature(const Function& function) {
    const std::string head = fmt::format("{}({})", function.name, list(function.args));
    return function.results ? fmt::format("{} -> ({})", head, list(*function.results)) : head;
}

void check_members(const Fields& members, const Json::Value& object, const std::string& path,
                   Faults& faults) {
    const std::string prefix = path.empty() ? "" : path + '.';
    for (const Field& field : members) {
        if (object.isMember(field.name)) {
            check(field, object[field.name], prefix + field.name, faults);
        } else if (!field.optional) {
            faults.push_back({prefix + field.name + " is missing", offset_of(object)});
        }
    }
    for (const std::string& name : object.getMemberNames()) {
        const bool is_declared = std::any_of(members.begin(), members.end(),
                                             [&](const Field& f) { return f.name == name; });
        if (!is_declared) {
            faults.push_back({prefix + name + " is not declared", offset_of(object[name])});
        }
    }
}

void check(const Field& field, const Json::Value& value, const std::string& path, Faults& faults) {
    const auto expected = [&](const std::string& what) {
        faults.push_back(
            {fmt::format("{} has to be {}, not {}", path, what, kind_of(value)), offset_of(value)});
    };
    if (field.type == "struct") {
        if (!value.isObject()) return expected("an object");
        return check_members(field.members, value, path, faults);
    }
    if (field.type == "vector") {
        if (!value.isArray()) return expected("an array");
        for (Json::ArrayIndex i = 0; i < value.size(); ++i) {
            check(element_of(field), value[i], fmt::format("{}[{}]", path, i), faults);
        }
        return;
    }
    const Scalar* const scalar = find_scalar(field.type);
    if (scalar == nullptr || scalar->accepts(value)) return;
    const bool is_integer = scalar->max > 0;
    expected(is_integer ? fmt::format("{}, {} to {}", field.type, scalar->min, scalar->max)
                        : field.type);
}

bool has_value(const Field& field) {
    return !has_no_value(field.type);
}

bool is_text(const Field& field) {
    const Scalar* const scalar = find_scalar(field.type);
    return scalar != nullptr && scalar->accepts == is_string;
}

std::string encode(const Field& field, std::size_t id, const Json::Value& value,
                   const std::string& source) {
    return fmt::format(R"({{"id":{},"type":"{}",{}}})", id, field.type,
                       encode_content(field, value, source));
}

std::string example(const Field& field) {
    if (field.type == "vector") return '[' + example(element_of(field)) + ']';
    if (const Scalar* const scalar = find_scalar(field.type)) return scalar->example;
    std::vector<std::string> members;
    for (const Field& member : field.members) {
        members.push_back(json_text(member.name) + ':' + example(member));
    }
    return fmt::format("{{{}}}", fmt::join(members, ","));
}

}  // namespace manager
