#include "rendering.h"

#include <cstdio>
#include <type_traits>
#include <vector>

namespace soak {
namespace {

using Holder = std::shared_ptr<ValuesInterface>;

template <class T>
const T& value_in(const Holder& holder) {
    return std::static_pointer_cast<ParamValues<T>>(holder)->value;
}

template <class T>
std::string text_of(const T& value) {
    if constexpr (std::is_same_v<T, std::string>) {
        return std::to_string(value.size()) + '"' + value;
    } else if constexpr (std::is_same_v<T, double>) {
        char text[32];
        std::snprintf(text, sizeof(text), "%.17g", value);
        return text;
    } else {
        return std::to_string(value);
    }
}

template <class T>
std::string scalar(const Holder& holder) {
    return text_of<T>(value_in<T>(holder));
}

template <class T>
std::string vector(const Holder& holder) {
    std::string text = "[";
    for (const auto& element : value_in<std::vector<T>>(holder)) text += text_of<T>(element) + ',';
    return text + ']';
}

using Render = std::string (*)(const Holder&);

struct Renderers {
    Render scalar;
    Render vector;
};

template <class T>
constexpr Renderers kRenderers = {scalar<T>, vector<T>};

// In the order of their values, from VEXON_TYPE_UINT8 on.
constexpr Renderers kTypes[] = {
    kRenderers<unsigned char>, kRenderers<unsigned short>, kRenderers<unsigned int>,
    kRenderers<unsigned long>, kRenderers<signed char>,    kRenderers<short>,
    kRenderers<int>,           kRenderers<long>,           kRenderers<double>,
    kRenderers<std::string>,   kRenderers<bool>,           kRenderers<int>,
    kRenderers<std::string>,
};

std::string render_map(const vexon_type_map_t& typed, const vexon_value_map_t& plain);

std::string render_structs(const Holder& typed, const Holder& plain) {
    const auto& typed_structs = value_in<std::vector<vexon_type_map_t>>(typed);
    const auto& plain_structs = value_in<std::vector<vexon_value_map_t>>(plain);
    if (typed_structs.size() != plain_structs.size()) return "the vectors of structs differ";
    std::string text = "[";
    for (std::size_t i = 0; i < typed_structs.size(); ++i) {
        text += render_map(typed_structs[i], plain_structs[i]) + ',';
    }
    return text + ']';
}

std::string render_value(vexon_data_type_t type, const Holder& typed, const Holder& plain) {
    if (type == VEXON_TYPE_STRUCT) {
        return render_map(value_in<vexon_type_map_t>(typed), value_in<vexon_value_map_t>(plain));
    }
    if (type == VEXON_TYPE_VECTOR_STRUCT) return render_structs(typed, plain);
    if (typed != plain) return "the values differ";
    if (type < VEXON_TYPE_VECTOR_UINT8) return kTypes[type - VEXON_TYPE_UINT8].scalar(typed);
    return kTypes[type - VEXON_TYPE_VECTOR_UINT8].vector(typed);
}

std::string render_map(const vexon_type_map_t& typed, const vexon_value_map_t& plain) {
    if (typed.size() != plain.size()) return "the sizes differ";
    std::string text = "{";
    for (const auto& [key, entry] : typed) {
        const auto other = plain.find(key);
        if (other == plain.end()) return "the keys differ";
        text += std::to_string(key) + ':' + std::to_string(entry.first) + '=' +
                render_value(entry.first, entry.second, other->second) + ';';
    }
    return text + '}';
}

}  // namespace

std::string render(const vexon_func_call_info_t& args) {
    if (args.type_queue == nullptr && args.value_queue == nullptr) return "{}";
    if (args.type_queue == nullptr || args.value_queue == nullptr) return "one queue is missing";
    return render_map(*args.type_queue, *args.value_queue);
}

}  // namespace soak
