// SPDX-License-Identifier: Apache-2.0
// What a service says of itself when it registers: its functions with the types of their arguments
// and results, in the form of docs/protocol.md. The functions keep no state. They take the JSON as
// it came; what is not as it should be counts as empty, and check_definition() tells of it.
#pragma once

#include <json/value.h>

#include <cstddef>
#include <string>
#include <vector>

#include "manager/simulation/messages.h"

namespace manager {

/// Something that is not as it should be, and where in the text that was parsed.
struct Fault {
    std::string what;
    std::size_t offset;
};
using Faults = std::vector<Fault>;

/// The text, empty if it is none.
std::string text_of(const Json::Value& value);
/// The array that is the member of an object, empty if there is none.
const Json::Value& array_of(const Json::Value& object, const char* key);
/// The "name" of a service, a function or a field, which is an argument, a member of a struct or a
/// result; and the one of this name, null if there is none.
std::string name_of(const Json::Value& named);
const Json::Value& find_named(const Json::Value& array, const std::string& name);
std::vector<Subsystem> subsystems_of(const Json::Value& service);

/// Adds what is wrong with an "api_def".
void check_definition(const Json::Value& api_def, Faults& faults);

/// As people write them: set_scene(scene: struct {name: string, zones: uint8[]}, seconds?: double).
std::string signature(const Json::Value& function);
std::string describe(const Json::Value& field);

/// Add what is wrong with a value, in which structs are objects and vectors arrays. `path` names
/// the value in what is said.
void check(const Json::Value& field, const Json::Value& value, const std::string& path,
           Faults& faults);
void check_members(const Json::Value& fields, const Json::Value& object, const std::string& path,
                   Faults& faults);

bool is_optional(const Json::Value& field);
/// Whether the type has values. One that has none is left out of a call.
bool has_value(const Json::Value& field);
/// Whether the value is a text, which people need not write with JSON's quotes.
bool is_text(const Json::Value& field);

/// A checked argument as a task has it, with the digits of `source`, from which `value` was parsed.
std::string encode(const Json::Value& field, std::size_t id, const Json::Value& value,
                   const std::string& source);

/// A value to begin with, as JSON.
std::string example(const Json::Value& field);

}  // namespace manager
