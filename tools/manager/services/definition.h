// What a service says of itself when it registers: its functions with the types of their arguments
// and results, in the form of docs/protocol.md. Values only; the functions keep no state.
#pragma once

#include <json/value.h>

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "manager/simulation/messages.h"

namespace manager {

/// An argument, a member of a struct or a result.
struct Field {
    std::string name;
    /// As definitions spell it.
    std::string type;
    /// The "vec_type" of a vector.
    std::string element = {};
    /// Of a struct, or of each element of a vector of structs.
    std::vector<Field> members = {};
    bool optional = false;
};
using Fields = std::vector<Field>;

struct Function {
    std::string name;
    Fields args;
    /// Absent if nothing is said of them.
    std::optional<Fields> results;
};

struct Definition {
    std::optional<Opcode> opcode;
    std::string name;
    std::vector<Subsystem> subsystems;
    std::vector<Function> functions;

    /// Null if it has no such function.
    const Function* find(const std::string& function) const;
};

/// Something that is not as it should be, and where in the text that was parsed.
struct Fault {
    std::string what;
    std::size_t offset;
};
using Faults = std::vector<Fault>;

/// Reads an "api_def" as far as it can be read, and adds what is wrong with it to `faults`.
Definition read_definition(const Json::Value& api_def, Faults& faults);

/// As people write them: set_scene(scene: struct {name: string, zones: uint8[]}, seconds?: double).
std::string signature(const Function& function);
std::string describe(const Field& field);

/// Add what is wrong with a value, in which structs are objects and vectors arrays. `path` names
/// the value in what is said.
void check(const Field& field, const Json::Value& value, const std::string& path, Faults& faults);
void check_members(const Fields& members, const Json::Value& object, const std::string& path,
                   Faults& faults);

/// Whether the type has values. One that has none is left out of a call.
bool has_value(const Field& field);

/// Whether the value is a text, which people need not write with JSON's quotes.
bool is_text(const Field& field);

/// A checked argument as a task has it, with the digits of `source`, from which `value` was parsed.
std::string encode(const Field& field, std::size_t id, const Json::Value& value,
                   const std::string& source);

/// A value to begin with, as JSON.
std::string example(const Field& field);

}  // namespace manager
