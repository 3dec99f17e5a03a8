#include "fuzz/argument_reader.h"

#include <memory>
#include <vector>

#include "fuzz/require.h"

namespace {

using Holder = std::shared_ptr<ValuesInterface>;

template <class T>
const T& held(const Holder& holder) {
    require(holder != nullptr, "a value is stored with its key");
    return std::static_pointer_cast<ParamValues<T>>(holder)->value;
}

void append(const std::string& value, std::string* text) {
    *text += value;
}

template <class Number>
void append(Number value, std::string* text) {
    *text += std::to_string(value);
}

template <class T>
void read_scalar(const Holder& holder, std::string* text) {
    append(held<T>(holder), text);
}

template <class T>
void read_vector(const Holder& holder, std::string* text) {
    for (const auto& value : held<std::vector<T>>(holder)) {
        append(value, text);
        *text += ',';
    }
}

struct Readers {
    void (*scalar)(const Holder& holder, std::string* text);
    void (*vector)(const Holder& holder, std::string* text);
};

template <class T>
constexpr Readers kReadersOf = {read_scalar<T>, read_vector<T>};

// In the order of the tags, from VEXON_TYPE_UINT8 and VEXON_TYPE_VECTOR_UINT8 on.
constexpr Readers kReaders[] = {
    kReadersOf<unsigned char>, kReadersOf<unsigned short>, kReadersOf<unsigned int>,
    kReadersOf<std::uint64_t>, kReadersOf<signed char>,    kReadersOf<short>,
    kReadersOf<int>,           kReadersOf<std::int64_t>,   kReadersOf<double>,
    kReadersOf<std::string>,   kReadersOf<bool>,           kReadersOf<int>,
    kReadersOf<std::string>,
};

void read_structs(const Holder& typed, const Holder& plain, std::string* text);

void read_entries(const vexon_type_map_t& typed, const vexon_value_map_t& plain, std::string* text);

void read_value(vexon_data_type_t tag, const Holder& typed, const Holder& plain,
                std::string* text) {
    if (tag == VEXON_TYPE_STRUCT) {
        read_entries(held<vexon_type_map_t>(typed), held<vexon_value_map_t>(plain), text);
        return;
    }
    if (tag == VEXON_TYPE_VECTOR_STRUCT) {
        read_structs(typed, plain, text);
        return;
    }
    require(typed == plain, "both queues hold the same object");
    if (tag >= VEXON_TYPE_UINT8 && tag <= VEXON_TYPE_BLOB) {
        kReaders[tag - VEXON_TYPE_UINT8].scalar(typed, text);
        return;
    }
    require(tag >= VEXON_TYPE_VECTOR_UINT8 && tag <= VEXON_TYPE_VECTOR_BLOB, "the tag is known");
    kReaders[tag - VEXON_TYPE_VECTOR_UINT8].vector(typed, text);
}

void read_structs(const Holder& typed, const Holder& plain, std::string* text) {
    const auto& typed_structs = held<std::vector<vexon_type_map_t>>(typed);
    const auto& plain_structs = held<std::vector<vexon_value_map_t>>(plain);
    require(typed_structs.size() == plain_structs.size(), "both queues hold the same structs");
    auto plain_struct = plain_structs.begin();
    for (const vexon_type_map_t& entries : typed_structs) {
        read_entries(entries, *plain_struct++, text);
    }
}

void read_entries(const vexon_type_map_t& typed, const vexon_value_map_t& plain,
                  std::string* text) {
    require(typed.size() == plain.size(), "both queues have as many entries");
    *text += '{';
    auto plain_entry = plain.begin();
    for (const auto& [key, entry] : typed) {
        require(key == plain_entry->first, "both queues have the same keys");
        *text += std::to_string(key) + '=';
        read_value(entry.first, entry.second, plain_entry->second, text);
        *text += ' ';
        ++plain_entry;
    }
    *text += '}';
}

}  // namespace

std::string read_arguments(const vexon_func_call_info_t& info) noexcept {
    require((info.type_queue == nullptr) == (info.value_queue == nullptr),
            "there are both queues or none");
    std::string text = info.func_name + ' ' + std::to_string(info.num_of_args);
    if (info.type_queue != nullptr) read_entries(*info.type_queue, *info.value_queue, &text);
    return text;
}
