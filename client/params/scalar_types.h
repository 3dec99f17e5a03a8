// SPDX-License-Identifier: Apache-2.0
// The 13 scalar types: how a JSON value of each is tested, read, checked and held. Top-level
// arguments, struct members and the elements of both kinds of vectors are decoded by this one
// description; they differ in the words of their messages only.

#pragma once

#include <json/json.h>

#include <memory>
#include <string>

#include "vexon2_0.h"

// The messages of one place in which scalars occur. Both take one %s: the name of the type.
struct ScalarMessages {
    const char* wrong_kind;
    const char* out_of_range;
};

extern const ScalarMessages kArgumentMessages;
extern const ScalarMessages kMemberMessages;
extern const ScalarMessages kVectorMessages;

// Returns whether `type` is one of the scalar types, 1 to 13.
bool is_scalar_type(vexon_data_type_t type);

// Returns the value of scalar `type` that `json` holds. Returns null, with a log line, if it is of
// another kind or out of range. `type_name` is the name that the message gave.
std::shared_ptr<ValuesInterface> decode_scalar(vexon_data_type_t type, const Json::Value& json,
                                               const std::string& type_name,
                                               const ScalarMessages& messages);

// As above for a vector of scalars of `type`; what is no array counts as an empty one.
std::shared_ptr<ValuesInterface> decode_scalar_vector(vexon_data_type_t type,
                                                      const Json::Value& json,
                                                      const std::string& type_name);

// Returns the tag of a vector whose elements are of `type`.
vexon_data_type_t vector_tag(vexon_data_type_t type);
