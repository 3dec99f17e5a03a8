// SPDX-License-Identifier: Apache-2.0
// vexa_definition_mismatches(): what a definition and the functions behind it disagree about. Any
// thread; no state.

#include <json/json.h>
#include <vexon2_0.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <vector>

#include "client/utility/json_access.h"

namespace {

using Texts = std::vector<std::string>;

// What describes an argument, a member or a result, and what it is if it is not said.
struct Key {
    const char* name;
    const char* missing;
};
constexpr Key kItemKeys[] = {{"name", ""}, {"type", ""}, {"vec_type", ""}, {"optional", "false"}};

std::string name_of(const Json::Value& named) {
    return text_member(named, "name", "");
}

const Json::Value* find_named(const Json::Value& array, const std::string& name) {
    for (const Json::Value& element : array) {
        if (name_of(element) == name) return &element;
    }
    return nullptr;
}

// Returns an empty one if there is none.
const Json::Value& array_member(const Json::Value& object, const char* key) {
    const Json::Value& array = member(object, key);
    if (array.isNull() || array.isArray()) return array;
    throw MalformedMessage(std::string(key) + " is no array");
}

void expect_same(const std::string& what, const std::string& defined, const std::string& made,
                 Texts* mismatches) {
    if (defined == made) return;
    mismatches->push_back(what + " is \"" + defined + "\" in the definition, \"" + made +
                          "\" in the service");
}

void compare_list(const std::string& path, const Json::Value& defined, const Json::Value& made,
                  Texts* mismatches);

void compare_item(const std::string& path, const Json::Value& defined, const Json::Value& made,
                  Texts* mismatches) {
    for (const auto& [name, missing] : kItemKeys) {
        expect_same(path + ": " + name, text_member(defined, name, missing),
                    text_member(made, name, missing), mismatches);
    }
    compare_list(path, array_member(defined, "members"), array_member(made, "members"), mismatches);
}

// The order of arguments and members counts: it is their id.
void compare_list(const std::string& path, const Json::Value& defined, const Json::Value& made,
                  Texts* mismatches) {
    expect_same(path + ": the number of items", std::to_string(defined.size()),
                std::to_string(made.size()), mismatches);
    for (Json::ArrayIndex i = 0; i < std::min(defined.size(), made.size()); ++i) {
        const std::string item = path + '.' + name_of(made[i]);
        expect_same(item + ": id", text_member(defined[i], "id", "0"),
                    text_member(made[i], "id", "0"), mismatches);
        compare_item(item, defined[i], made[i], mismatches);
    }
}

void compare_results(const std::string& path, const Json::Value& defined, const Json::Value& made,
                     Texts* mismatches) {
    for (const Json::Value& result : made) {
        const Json::Value* const same = find_named(defined, name_of(result));
        if (same != nullptr) {
            compare_item(path + '.' + name_of(result), *same, result, mismatches);
        } else {
            mismatches->push_back(path + '.' + name_of(result) + " is not in the definition");
        }
    }
}

void compare_functions(const Json::Value& defined, const Json::Value& made, Texts* mismatches) {
    for (const Json::Value& function : made) {
        const std::string name = name_of(function);
        const Json::Value* const same = find_named(defined, name);
        if (same == nullptr) {
            mismatches->push_back("function " + name + " is not in the definition");
            continue;
        }
        if (find_member(function, "args") != nullptr) {
            compare_list(name, array_member(*same, "args"), array_member(function, "args"),
                         mismatches);
        }
        const bool has_results = find_member(*same, "results") != nullptr;
        if (has_results) {
            compare_results(name + " results", array_member(*same, "results"),
                            array_member(function, "results"), mismatches);
        }
    }
    for (const Json::Value& function : defined) {
        if (find_named(made, name_of(function)) != nullptr) continue;
        mismatches->push_back("function " + name_of(function) + " is not in the service");
    }
}

std::string opcode_of(const Json::Value& service) {
    return std::to_string(std::strtoul(text_member(service, "opcode", "0").c_str(), nullptr, 16));
}

std::string subsystems_of(const Json::Value& service) {
    std::string ids;
    for (const Json::Value& subsystem : array_member(service, "subsystems")) {
        ids += (ids.empty() ? "" : ",") + std::to_string(uint_member(subsystem, "id", 0));
    }
    return ids;
}

void compare_services(const Json::Value& defined, const Json::Value& made, Texts* mismatches) {
    expect_same("opcode", opcode_of(defined), opcode_of(made), mismatches);
    expect_same("name", name_of(defined), name_of(made), mismatches);
    expect_same("subsystems", subsystems_of(defined), subsystems_of(made), mismatches);
    compare_functions(array_member(defined, "functions"), array_member(made, "functions"),
                      mismatches);
}

Json::Value parse(const std::string& text) {
    Json::Value root;
    std::string error;
    if (JsonReader().parse(text.data(), text.data() + text.size(), &root, &error)) return root;
    throw MalformedMessage(error);
}

}  // namespace

std::vector<std::string> vexa_definition_mismatches(const std::string& definition,
                                                    const std::string& made) {
    Texts mismatches;
    try {
        const Json::Value defined = parse(definition);
        compare_services(member(defined, "Vexon"), member(parse(made), "Vexon"), &mismatches);
    } catch (const MalformedMessage& error) {
        mismatches.push_back(std::string("the definition cannot be read: ") + error.what());
    }
    return mismatches;
}
