// SPDX-License-Identifier: Apache-2.0
#include "manager/services/definition.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <array>
#include <set>

#include "manager/base/json.h"
#include "manager/base/words.h"

namespace manager {
namespace {

struct Scalar {
    const char* name;
    /// The range of an integer.
    std::int64_t min = 0;
    std::uint64_t max = 0;
    /// Of another type.
    const char* example = "0";
    bool (Json::Value::*is_one)() const = nullptr;
};

constexpr std::array<Scalar, 13> kScalars{{
    {"uint8", 0, UINT8_MAX},
    {"uint16", 0, UINT16_MAX},
    {"uint32", 0, UINT32_MAX},
    {"uint64", 0, UINT64_MAX},
    {"int8", INT8_MIN, INT8_MAX},
    {"int16", INT16_MIN, INT16_MAX},
    {"int32", INT32_MIN, INT32_MAX},
    {"int64", INT64_MIN, INT64_MAX},
    {"enum", INT32_MIN, INT32_MAX},
    {"double", 0, 0, "0.0", &Json::Value::isNumeric},
    {"boolean", 0, 0, "false", &Json::Value::isBool},
    {"string", 0, 0, "\"\"", &Json::Value::isString},
    {"bnry_blb", 0, 0, "\"\"", &Json::Value::isString},
}};

/// Null if there is none.
const Scalar* find_scalar(const std::string& name) {
    const auto* const scalar = std::find_if(kScalars.begin(), kScalars.end(),
                                            [&](const Scalar& s) { return s.name == name; });
    return scalar == kScalars.end() ? nullptr : scalar;
}

bool accepts(const Scalar& type, const Json::Value& value) {
    if (type.is_one != nullptr) return (value.*type.is_one)();
    return value.isUInt64() ? value.asUInt64() <= type.max
                            : value.isInt64() && value.asInt64() >= type.min;
}

std::string type_of(const Json::Value& field) {
    return text_of(member(field, "type"));
}

bool is_vector(const Json::Value& field) {
    return type_of(field) == "vector";
}

/// The field that each element of a vector is.
Json::Value element_of(Json::Value vector) {
    vector["type"] = member(vector, "vec_type");
    vector.removeMember("vec_type");
    return vector;
}

std::string kind_of(const Json::Value& value) {
    if (value.isNumeric() || value.isBool()) return value.asString();
    constexpr std::array<const char*, 8> kKinds{"null",   "", "",         "",
                                                "a text", "", "an array", "an object"};
    return kKinds.at(value.type());
}

void require(bool holds, Faults& faults, const Json::Value& at, const std::string& fault) {
    const auto offset = std::max<std::ptrdiff_t>(at.getOffsetStart(), 0);
    if (!holds) faults.push_back({fault, static_cast<std::size_t>(offset)});
}

/// Adds the name to those of the neighbours.
void check_name(const Json::Value& owner, const std::string& path, std::set<std::string>& others,
                Faults& faults) {
    const Json::Value& value = member(owner, "name");
    const std::string name = text_of(value);
    const char* const what = value.isNull() ? "is missing" : "is empty or no text";
    require(!name.empty(), faults, owner, fmt::format("{}: \"name\" {}", path, what));
    const bool is_plain = std::none_of(
        name.begin(), name.end(), [](char c) { return c == '"' || c == '\\' || is_control(c); });
    require(is_plain, faults, value,
            path + ": a name is without quotes, backslashes, control characters");
    require(name.empty() || others.insert(name).second, faults, value,
            fmt::format("{}: there is another \"{}\"", path, name));
}

/// Returns what array_of() does.
const Json::Value& check_array(const Json::Value& owner, const char* key, const std::string& path,
                               bool required, Faults& faults) {
    const Json::Value& value = member(owner, key);
    const bool is_missing = value.isNull();
    require(!is_missing || !required, faults, owner,
            fmt::format("{}: \"{}\" is missing", path, key));
    require(is_missing || (value.isArray() && !(required && value.empty())), faults, value,
            fmt::format("{}: \"{}\" has to be an array, and not empty", path, key));
    return array_of(owner, key);
}

enum class Place { Argument, Member, Result };

void check_fields(const Json::Value& fields, const std::string& path, Place place, Faults& faults);

void check_type(const Json::Value& field, const std::string& path, Place place, Faults& faults) {
    const char* const key = is_vector(field) ? "vec_type" : "type";
    const Json::Value& value = member(field, key);
    const std::string type = text_of(value);
    const bool is_struct = type == "struct";
    require(!value.isNull(), faults, field, fmt::format("{}: \"{}\" is missing", path, key));
    require(value.isNull() || is_struct || find_scalar(type) != nullptr || !has_value(field),
            faults, value, fmt::format("{}: there is no {} \"{}\"", path, key, type));
    require(!is_struct || !is_vector(field) || place != Place::Member, faults, field,
            path + ": a vector of structs may be an argument only");
    if (is_struct) {
        check_fields(check_array(field, "members", path, true, faults), path + ".members",
                     place == Place::Result ? place : Place::Member, faults);
    }
    const Json::Value& optional = member(field, "optional");
    require(optional.isNull() || optional.isBool(), faults, optional,
            path + ": \"optional\" has to be true or false");
}

void check_fields(const Json::Value& fields, const std::string& path, Place place, Faults& faults) {
    std::set<std::string> names;
    for (Json::ArrayIndex i = 0; i < fields.size(); ++i) {
        const std::string own = fmt::format("{}[{}]", path, i);
        check_type(fields[i], own, place, faults);
        check_name(fields[i], own, names, faults);
        const Json::Value& id = member(fields[i], "id");
        require(place == Place::Result || (id.isUInt() && id.asUInt() == i), faults, fields[i],
                fmt::format("{}: \"id\" has to be its position, {}", own, i));
    }
}

std::string list(const Json::Value& fields) {
    std::vector<std::string> texts;
    for (const Json::Value& field : fields) {
        texts.push_back(fmt::format("{}{}: {}", name_of(field), is_optional(field) ? "?" : "",
                                    describe(field)));
    }
    return fmt::format("{}", fmt::join(texts, ", "));
}

std::string encode_members(const Json::Value& field, const Json::Value& value,
                           const std::string& source) {
    const Json::Value& members = array_of(field, "members");
    std::vector<std::string> texts;
    for (Json::ArrayIndex i = 0; i < members.size(); ++i) {
        const std::string name = name_of(members[i]);
        if (value.isMember(name)) texts.push_back(encode(members[i], i, value[name], source));
    }
    return fmt::format(R"("members":[{}])", fmt::join(texts, ","));
}

}  // namespace

std::string text_of(const Json::Value& value) {
    return value.isString() ? value.asString() : "";
}

const Json::Value& array_of(const Json::Value& object, const char* key) {
    static const Json::Value kNone(Json::arrayValue);
    const Json::Value& value = member(object, key);
    return value.isArray() ? value : kNone;
}

std::string name_of(const Json::Value& named) {
    return text_of(member(named, "name"));
}

const Json::Value& find_named(const Json::Value& array, const std::string& name) {
    for (const Json::Value& named : array) {
        if (name_of(named) == name) return named;
    }
    return Json::Value::nullSingleton();
}

std::vector<Subsystem> subsystems_of(const Json::Value& service) {
    std::vector<Subsystem> subsystems;
    for (const Json::Value& subsystem : array_of(service, "subsystems")) {
        const Json::Value& id = member(subsystem, "id");
        if (id.isUInt()) subsystems.push_back(id.asUInt());
    }
    return subsystems;
}

void check_definition(const Json::Value& api_def, Faults& faults) {
    const Json::Value& service = member(api_def, "Vexon");
    require(service.isObject(), faults, api_def, "definition: \"Vexon\" is missing");
    if (!service.isObject()) return;
    require(hexadecimal(text_of(member(service, "opcode"))).has_value(), faults, service,
            "Vexon: \"opcode\" has to be a hexadecimal text");
    std::set<std::string> names;
    check_name(service, "Vexon", names, faults);
    for (const Json::Value& subsystem : check_array(service, "subsystems", "Vexon", true, faults)) {
        require(member(subsystem, "id").isUInt(), faults, subsystem,
                "Vexon.subsystems: an \"id\" has to be a number of 32 bits");
    }
    names.clear();
    const Json::Value& functions = check_array(service, "functions", "Vexon", false, faults);
    for (Json::ArrayIndex i = 0; i < functions.size(); ++i) {
        const std::string path = fmt::format("Vexon.functions[{}]", i);
        check_name(functions[i], path, names, faults);
        check_fields(check_array(functions[i], "args", path, false, faults), path + ".args",
                     Place::Argument, faults);
        check_fields(check_array(functions[i], "results", path, false, faults), path + ".results",
                     Place::Result, faults);
    }
}

std::string describe(const Json::Value& field) {
    if (is_vector(field)) return describe(element_of(field)) + "[]";
    const std::string type = type_of(field);
    return type == "struct" ? fmt::format("struct {{{}}}", list(array_of(field, "members"))) : type;
}

std::string signature(const Json::Value& function) {
    std::string text = fmt::format("{}({})", name_of(function), list(array_of(function, "args")));
    if (member(function, "results").isNull()) return text;
    return text + fmt::format(" -> ({})", list(array_of(function, "results")));
}

void check_members(const Json::Value& fields, const Json::Value& object, const std::string& path,
                   Faults& faults) {
    const std::string prefix = path.empty() ? "" : path + '.';
    for (const Json::Value& field : fields) {
        const std::string name = name_of(field);
        const bool is_there = object.isMember(name);
        if (is_there) check(field, object[name], prefix + name, faults);
        require(is_there || is_optional(field), faults, object, prefix + name + " is missing");
    }
    for (const std::string& name : object.getMemberNames()) {
        require(!find_named(fields, name).isNull(), faults, object[name],
                prefix + name + " is not declared");
    }
}

void check(const Json::Value& field, const Json::Value& value, const std::string& path,
           Faults& faults) {
    std::string expected = type_of(field);
    const Scalar* const scalar = find_scalar(expected);
    if (expected == "struct") {
        if (value.isObject()) return check_members(array_of(field, "members"), value, path, faults);
        expected = "an object";
    } else if (expected == "vector") {
        const Json::Value element = element_of(field);
        for (Json::ArrayIndex i = 0; value.isArray() && i < value.size(); ++i) {
            check(element, value[i], fmt::format("{}[{}]", path, i), faults);
        }
        if (value.isArray()) return;
        expected = "an array";
    } else if (scalar == nullptr || accepts(*scalar, value)) {
        return;
    } else if (scalar->max > 0) {
        expected += fmt::format(", {} to {}", scalar->min, scalar->max);
    }
    require(false, faults, value,
            fmt::format("{} has to be {}, not {}", path, expected, kind_of(value)));
}

bool is_optional(const Json::Value& field) {
    return member(field, "optional") == true;
}

bool has_value(const Json::Value& field) {
    return type_of(field) != "cb" && type_of(field) != "none";
}

bool is_text(const Json::Value& field) {
    return type_of(field) == "string" || type_of(field) == "bnry_blb";
}

std::string encode(const Json::Value& field, std::size_t id, const Json::Value& value,
                   const std::string& source) {
    const std::string element = text_of(member(field, "vec_type"));
    std::string content = "\"value\":" + json_source(value, source);
    if (type_of(field) == "struct") content = encode_members(field, value, source);
    if (is_vector(field) && element == "struct") {
        std::vector<std::string> texts;
        for (const Json::Value& members : value) {
            texts.push_back('{' + encode_members(field, members, source) + '}');
        }
        content = fmt::format(R"("value":[{}])", fmt::join(texts, ","));
    }
    if (is_vector(field)) content = fmt::format(R"("vec_type":"{}",{})", element, content);
    return fmt::format(R"({{"id":{},"type":"{}",{}}})", id, type_of(field), content);
}

std::string example(const Json::Value& field) {
    if (is_vector(field)) return '[' + example(element_of(field)) + ']';
    if (const Scalar* const scalar = find_scalar(type_of(field))) return scalar->example;
    std::vector<std::string> members;
    for (const Json::Value& member : array_of(field, "members")) {
        members.push_back(json_text(name_of(member)) + ':' + example(member));
    }
    return fmt::format("{{{}}}", fmt::join(members, ","));
}

}  // namespace manager
