// SPDX-License-Identifier: Apache-2.0
#include "fuzz/argument_reader.h"

#include <memory>
#include <vector>

#include "fuzz/require.h"

namespace {

using Holder = std::shared_ptr<ValuesInterface>;
using vexon::Object;

template <class T>
const T& held(const Holder& holder) {
    require(holder != nullptr, "a value is stored with its key");
    return std::static_pointer_cast<ParamValues<T>>(holder)->value;
}

template <class T>
void read(const Holder& holder, Object* object) {
    object->add("value", held<T>(holder));
}

struct Type {
    const char* name;
    void (*read_scalar)(const Holder& holder, Object* object);
    void (*read_vector)(const Holder& holder, Object* object);
};

template <class T>
constexpr Type type(const char* name) {
    return {name, read<T>, read<std::vector<T>>};
}

// In the order of the tags, from VEXON_TYPE_UINT8 and VEXON_TYPE_VECTOR_UINT8 on.
constexpr Type kTypes[] = {
    type<unsigned char>("uint8"),
    type<unsigned short>("uint16"),
    type<unsigned int>("uint32"),
    type<std::uint64_t>("uint64"),
    type<signed char>("int8"),
    type<short>("int16"),
    type<int>("int32"),
    type<std::int64_t>("int64"),
    type<double>("double"),
    type<std::string>("string"),
    type<bool>("boolean"),
    type<int>("enum"),
    type<std::string>("bnry_blb"),
};

using Objects = std::vector<Object>;

Objects read_entries(const vexon_type_map_t& typed, const vexon_value_map_t& plain);

Objects read_structs(const Holder& typed, const Holder& plain) {
    const auto& typed_structs = held<std::vector<vexon_type_map_t>>(typed);
    const auto& plain_structs = held<std::vector<vexon_value_map_t>>(plain);
    require(typed_structs.size() == plain_structs.size(), "both queues hold the same structs");
    Objects structs;
    for (std::size_t i = 0; i < typed_structs.size(); ++i) {
        structs.push_back(
            Object().add("members", read_entries(typed_structs[i], plain_structs[i])));
    }
    return structs;
}

void read_value(vexon_data_type_t tag, const Holder& typed, const Holder& plain, Object* object) {
    if (tag == VEXON_TYPE_STRUCT) {
        const auto& values = held<vexon_value_map_t>(plain);
        object->add("members", read_entries(held<vexon_type_map_t>(typed), values));
        object->add("type", "struct");
        return;
    }
    if (tag == VEXON_TYPE_VECTOR_STRUCT) {
        object->add("type", "vector").add("value", read_structs(typed, plain));
        object->add("vec_type", "struct");
        return;
    }
    require(typed == plain, "both queues hold the same object");
    if (tag >= VEXON_TYPE_UINT8 && tag <= VEXON_TYPE_BLOB) {
        const Type& type = kTypes[tag - VEXON_TYPE_UINT8];
        type.read_scalar(typed, &object->add("type", type.name));
        return;
    }
    require(tag >= VEXON_TYPE_VECTOR_UINT8 && tag <= VEXON_TYPE_VECTOR_BLOB, "the tag is known");
    const Type& type = kTypes[tag - VEXON_TYPE_VECTOR_UINT8];
    type.read_vector(typed, &object->add("type", "vector"));
    object->add("vec_type", type.name);
}

Objects read_entries(const vexon_type_map_t& typed, const vexon_value_map_t& plain) {
    require(typed.size() == plain.size(), "both queues have as many entries");
    Objects entries;
    auto plain_entry = plain.begin();
    for (const auto& [key, entry] : typed) {
        require(key == plain_entry->first, "both queues have the same keys");
        read_value(entry.first, entry.second, plain_entry->second,
                   &entries.emplace_back().add("id", key));
        ++plain_entry;
    }
    return entries;
}

}  // namespace

Object read_arguments(const vexon_func_call_info_t& info) noexcept {
    require((info.type_queue == nullptr) == (info.value_queue == nullptr),
            "there are both queues or none");
    Object call;
    call.add("name", info.func_name).add("num_of_args", info.num_of_args);
    const bool has_none = info.type_queue == nullptr;
    call.add("args", has_none ? Objects() : read_entries(*info.type_queue, *info.value_queue));
    return call;
}
