// SPDX-License-Identifier: Apache-2.0
#include "client/params/scalar_types.h"

#include <type_traits>
#include <utility>
#include <vector>

#include "client/utility/logging.h"

const ScalarMessages kArgumentMessages = {
    "Arg type %s and type of value do not match while parsing",
    "Out of range value for %s",
};
const ScalarMessages kMemberMessages = {
    "Arg type %s and type of value do not match while parsing",
    "Out of range value received for %s",
};
const ScalarMessages kVectorMessages = {
    "vector type %s and type of value do not match while parsing",
    "Out of range value receieved for %s",
};

namespace {

enum class Decoded { kValue, kWrongKind, kOutOfRange };

using Holder = std::shared_ptr<ValuesInterface>;

struct ScalarType {
    Decoded (*decode)(const Json::Value& json, Holder* value);
    Decoded (*decode_vector)(const Json::Value& array, Holder* value);
};

template <class T, bool (Json::Value::*kIs)() const, auto kAs>
struct Scalar {
    static Decoded read(const Json::Value& json, T* value) {
        if (!(json.*kIs)()) return Decoded::kWrongKind;
        auto wide = (json.*kAs)();
        if constexpr (sizeof(T) < sizeof(wide)) {
            if (static_cast<decltype(wide)>(static_cast<T>(wide)) != wide) {
                return Decoded::kOutOfRange;
            }
        }
        *value = static_cast<T>(std::move(wide));
        return Decoded::kValue;
    }

    static Decoded decode(const Json::Value& json, Holder* holder) {
        T value{};
        const Decoded decoded = read(json, &value);
        if (decoded == Decoded::kValue)
            *holder = std::make_shared<ParamValues<T>>(std::move(value));
        return decoded;
    }

    static Decoded decode_vector(const Json::Value& array, Holder* holder) {
        std::vector<T> values;
        values.reserve(array.size());
        for (const Json::Value& element : array) {
            T value{};
            const Decoded decoded = read(element, &value);
            if (decoded != Decoded::kValue) return decoded;
            values.push_back(std::move(value));
        }
        *holder = std::make_shared<ParamValues<std::vector<T>>>(std::move(values));
        return Decoded::kValue;
    }

    static constexpr ScalarType kType = {decode, decode_vector};
};

using Json::Value;

// In the order of their values, from VEXON_TYPE_UINT8 on.
constexpr ScalarType kScalarTypes[] = {
    Scalar<unsigned char, &Value::isUInt, &Value::asUInt64>::kType,
    Scalar<unsigned short, &Value::isUInt, &Value::asUInt64>::kType,
    Scalar<unsigned int, &Value::isUInt, &Value::asUInt64>::kType,
    Scalar<std::uint64_t, &Value::isUInt64, &Value::asUInt64>::kType,
    Scalar<signed char, &Value::isInt, &Value::asInt64>::kType,
    Scalar<short, &Value::isInt, &Value::asInt64>::kType,
    Scalar<int, &Value::isInt, &Value::asInt64>::kType,
    Scalar<std::int64_t, &Value::isInt64, &Value::asInt64>::kType,
    Scalar<double, &Value::isDouble, &Value::asDouble>::kType,
    Scalar<std::string, &Value::isString, &Value::asString>::kType,
    Scalar<bool, &Value::isBool, &Value::asBool>::kType,
    Scalar<int, &Value::isInt, &Value::asInt>::kType,
    Scalar<std::string, &Value::isString, &Value::asString>::kType,
};

const ScalarType& scalar_type(vexon_data_type_t type) {
    return kScalarTypes[type - VEXON_TYPE_UINT8];
}

Holder report(Decoded decoded, Holder value, const std::string& type_name,
              const ScalarMessages& messages) {
    if (decoded == Decoded::kValue) return value;
    const bool wrong_kind = decoded == Decoded::kWrongKind;
    log_line(kAlways, wrong_kind ? messages.wrong_kind : messages.out_of_range, type_name.c_str());
    return nullptr;
}

}  // namespace

bool is_scalar_type(vexon_data_type_t type) {
    return type >= VEXON_TYPE_UINT8 && type <= VEXON_TYPE_BLOB;
}

Holder decode_scalar(vexon_data_type_t type, const Json::Value& json, const std::string& type_name,
                     const ScalarMessages& messages) {
    Holder value;
    const Decoded decoded = scalar_type(type).decode(json, &value);
    return report(decoded, std::move(value), type_name, messages);
}

Holder decode_scalar_vector(vexon_data_type_t type, const Json::Value& json,
                            const std::string& type_name) {
    Holder value;
    const Json::Value& array = json.isArray() ? json : Json::Value::nullSingleton();
    const Decoded decoded = scalar_type(type).decode_vector(array, &value);
    return report(decoded, std::move(value), type_name, kVectorMessages);
}

vexon_data_type_t vector_tag(vexon_data_type_t type) {
    return static_cast<vexon_data_type_t>(VEXON_TYPE_STRUCT + type);
}
