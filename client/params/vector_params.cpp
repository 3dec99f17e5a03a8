// SPDX-License-Identifier: Apache-2.0
#include "client/params/vector_params.h"

#include <utility>
#include <vector>

#include "client/params/decoding.h"
#include "client/params/queues.h"
#include "client/params/scalar_types.h"
#include "client/params/struct_params.h"

namespace {

int add_scalar_vector(const Json::Value& arg, const std::string& type_name, vexon_data_type_t type,
                      int id, vexon_func_call_info_t* info) {
    auto value = decode_scalar_vector(type, member(arg, "value"), type_name);
    if (value == nullptr) return -1;
    QueueInsertion(info, id, value, vector_tag(type));
    value_QueueInsertion(info, id, std::move(value));
    return 0;
}

int add_struct_vector(const Json::Value& arg, int id, vexon_func_call_info_t* info) {
    std::vector<vexon_type_map_t> typed_structs;
    std::vector<vexon_value_map_t> value_structs;
    for (const Json::Value& element : member(arg, "value")) {
        vexon_type_map_t typed;
        vexon_value_map_t values;
        if (AddStructParams(member(element, "members"), 0, &typed, &values) != 0) return -1;
        typed_structs.push_back(std::move(typed));
        value_structs.push_back(std::move(values));
    }
    QueueInsertion(
        info, id,
        std::make_shared<ParamValues<std::vector<vexon_type_map_t>>>(std::move(typed_structs)),
        VEXON_TYPE_VECTOR_STRUCT);
    value_QueueInsertion(
        info, id,
        std::make_shared<ParamValues<std::vector<vexon_value_map_t>>>(std::move(value_structs)));
    return 0;
}

}  // namespace

int AddVectorParams(const Json::Value& arg, int, int id, vexon_func_call_info_t* info) {
    return decode_guarded([&] {
        const std::string type_name = text_member(arg, "vec_type", "none");
        if (type_name == "none") {
            log_line(kAlways, "Json tag 'vec_type' is missing");
            return -1;
        }
        const vexon_data_type_t type = data_type_of(type_name);
        if (is_scalar_type(type)) return add_scalar_vector(arg, type_name, type, id, info);
        if (type == VEXON_TYPE_STRUCT) return add_struct_vector(arg, id, info);
        return 0;
    });
}
