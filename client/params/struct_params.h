// SPDX-License-Identifier: Apache-2.0
// Decoders of a struct's members. Both fill `typed` and `values` side by side; the first member of
// an id stays. The second argument has no use. Run on the receive thread.

#pragma once

#include <json/json.h>

#include "vexon2_0.h"

// Decodes the "members" array of a struct. A member of an unknown type and a vector member that
// cannot be decoded are left out. Returns 0, or -1 when `members` is no array or another member
// cannot be decoded; what was decoded before stays in the maps.
VEXON_API int AddStructParams(const Json::Value& members, int, vexon_type_map_t* typed,
                              vexon_value_map_t* values);

// Decodes one vector member. Returns 0, also when the elements are of a type that is not stored, or
// -1.
VEXON_API int AddStructVectorParams(const Json::Value& member, int, int id, vexon_type_map_t* typed,
                                    vexon_value_map_t* values);
