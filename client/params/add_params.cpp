// SPDX-License-Identifier: Apache-2.0
#include "client/params/add_params.h"

#include <utility>

#include "client/params/decoding.h"
#include "client/params/queues.h"
#include "client/params/scalar_types.h"
#include "client/params/struct_params.h"
#include "client/params/vector_params.h"

namespace {

int add_scalar(const Json::Value& arg, const std::string& type_name, vexon_data_type_t type, int id,
               vexon_func_call_info_t* info) {
    auto value = decode_scalar(type, member(arg, "value"), type_name, kArgumentMessages);
    if (value == nullptr) return -1;
    QueueInsertion(info, id, value, type);
    value_QueueInsertion(info, id, std::move(value));
    return 0;
}

int add_vector(const Json::Value& arg, const std::string& type_name, int id,
               vexon_func_call_info_t* info) {
    if (!member(arg, "value").isArray()) {
        log_line(kAlways, kArgumentMessages.wrong_kind, type_name.c_str());
        return -1;
    }
    return AddVectorParams(arg, 0, id, info);
}

// Unlike all others, a struct is stored under its position.
int add_struct(const Json::Value& arg, int position, vexon_func_call_info_t* info) {
    vexon_type_map_t typed;
    vexon_value_map_t values;
    if (AddStructParams(member(arg, "members"), 0, &typed, &values) != 0) return -1;
    QueueInsertion(info, position,
                   std::make_shared<ParamValues<vexon_type_map_t>>(std::move(typed)),
                   VEXON_TYPE_STRUCT);
    value_QueueInsertion(info, position,
                         std::make_shared<ParamValues<vexon_value_map_t>>(std::move(values)));
    return 0;
}

int add_argument(const Json::Value& arg, int position, vexon_func_call_info_t* info) {
    const int id = int_member(arg, "id", 0);
    const std::string type_name = text_member(arg, "type", "");
    const vexon_data_type_t type = data_type_of(type_name);
    if (is_scalar_type(type)) return add_scalar(arg, type_name, type, id, info);
    if (type == VEXON_TYPE_VECTOR) return add_vector(arg, type_name, id, info);
    if (type == VEXON_TYPE_STRUCT) return add_struct(arg, position, info);
    return 0;
}

}  // namespace

int AddParamsToQueues(const Json::Value& request, vexon_func_call_info_t* info) {
    *info = vexon_func_call_info_t{};
    return decode_guarded([&] {
        const Json::Value& func = member(request, "func");
        const Json::Value& args = member(func, "args");
        info->func_name = text_member(func, "name", "");
        info->num_of_args = int_member(func, "num_of_args", 0);
        if (info->num_of_args < 0 ||
            args.size() != static_cast<Json::ArrayIndex>(info->num_of_args)) {
            log_line(kAlways, "Num of args and size of arg array do not match while parsing");
            return -1;
        }
        if (args.isObject()) {
            log_line(kAlways, "Malformed argument while parsing: args is not an array");
            return -1;
        }
        int position = 0;
        for (const Json::Value& arg : args) {
            if (add_argument(arg, position++, info) != 0) return -1;
        }
        return 0;
    });
}
