// SPDX-License-Identifier: Apache-2.0
#include "client/params/struct_params.h"

#include <utility>

#include "client/params/decoding.h"
#include "client/params/scalar_types.h"

namespace {

int add_scalar_member(const Json::Value& entry, const std::string& type_name,
                      vexon_data_type_t type, int id, vexon_type_map_t* typed,
                      vexon_value_map_t* values) {
    auto value = decode_scalar(type, member(entry, "value"), type_name, kMemberMessages);
    if (value == nullptr) return -1;
    typed->try_emplace(typed->end(), id, type, value);
    values->try_emplace(values->end(), id, std::move(value));
    return 0;
}

int add_struct_member(const Json::Value& entry, int id, vexon_type_map_t* typed,
                      vexon_value_map_t* values) {
    vexon_type_map_t nested_typed;
    vexon_value_map_t nested_values;
    if (AddStructParams(member(entry, "members"), 0, &nested_typed, &nested_values) != 0) return -1;
    typed->insert({id,
                   {VEXON_TYPE_STRUCT,
                    std::make_shared<ParamValues<vexon_type_map_t>>(std::move(nested_typed))}});
    values->insert(
        {id, std::make_shared<ParamValues<vexon_value_map_t>>(std::move(nested_values))});
    return 0;
}

int add_member(const Json::Value& entry, vexon_type_map_t* typed, vexon_value_map_t* values) {
    const std::string type_name = text_member(entry, "type", "");
    const int id = int_member(entry, "id", 0);
    const vexon_data_type_t type = data_type_of(type_name);
    if (is_scalar_type(type)) {
        return add_scalar_member(entry, type_name, type, id, typed, values);
    }
    if (type == VEXON_TYPE_STRUCT) return add_struct_member(entry, id, typed, values);
    // A vector that cannot be decoded is missing, the struct is not refused for it.
    if (type == VEXON_TYPE_VECTOR) AddStructVectorParams(entry, 0, id, typed, values);
    return 0;
}

}  // namespace

int AddStructParams(const Json::Value& members, int, vexon_type_map_t* typed,
                    vexon_value_map_t* values) {
    if (!members.isArray()) return -1;
    return decode_guarded([&] {
        for (const Json::Value& entry : members) {
            if (add_member(entry, typed, values) != 0) return -1;
        }
        return 0;
    });
}

int AddStructVectorParams(const Json::Value& entry, int, int id, vexon_type_map_t* typed,
                          vexon_value_map_t* values) {
    return decode_guarded([&] {
        const std::string type_name = text_member(entry, "vec_type", "none");
        if (type_name == "none") return -1;
        const vexon_data_type_t type = data_type_of(type_name);
        if (!is_scalar_type(type)) return 0;
        auto value = decode_scalar_vector(type, member(entry, "value"), type_name);
        if (value == nullptr) return -1;
        typed->try_emplace(typed->end(), id, vector_tag(type), value);
        values->try_emplace(values->end(), id, std::move(value));
        return 0;
    });
}
