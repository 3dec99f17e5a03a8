// SPDX-License-Identifier: Apache-2.0
/// \file
/// Arguments and results in types of the author's own: what vexon2_0_service.h decodes into the
/// parameters of a function, writes as its results and describes in the definition of the service.
/// Header only; needs nothing but the headers beside it.
///
///     enum class Mode { kEco, kComfort };
///     struct Period {
///         std::uint8_t from_hour, to_hour;
///         Mode mode;
///         std::optional<double> celsius;  // may be missing
///         static constexpr auto kMembers =
///             vexon::member_list("from_hour", &Period::from_hour, "to_hour", &Period::to_hour,
///                                "mode", &Period::mode, "celsius", &Period::celsius);
///     };
///
/// What can be an argument, a member or a result, and its type in the definition:
///   - the scalars of vexon2_0_arguments.h; long long and unsigned long long as int64 and uint64;
///   - vexon::Enum, every enum class and every enum with a type behind a colon as enum, vexon::Blob
///     as bnry_blb;
///   - a struct with kMembers as struct, whose members have the position in the list as their id;
///   - a std::vector of all these as vector; one of structs is an argument or part of a result, but
///     no member of a struct that is an argument;
///   - a std::optional of all these, also of a vector: it may be missing.
/// All else does not compile, with a message that says so. A value is taken only from an argument
/// of exactly its type: an int32 is no double.
///
/// Thread-safety: everything here only reads what it is given.

#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "vexon2_0_arguments.h"
#include "vexon2_0_reply.h"

namespace vexon {

/// A number that the definition calls an enum.
struct Enum {
    int value = 0;  ///< the number
};

/// A text that the definition calls a bnry_blb.
struct Blob {
    std::string text;  ///< as it was received
};

namespace internal {

template <class Owner, class T>
struct NamedMember {
    const char* name;
    T Owner::*member;
};

}  // namespace internal

/// Returns the list of a struct without members.
constexpr std::tuple<> member_list() {
    return {};
}

/// Returns the list of a struct's members, for its kMembers: a name and a pointer for each, in the
/// order of their ids.
template <class Owner, class T, class... Rest>
constexpr auto member_list(const char* name, T Owner::*member, Rest... rest) {
    return std::tuple_cat(std::tuple(internal::NamedMember<Owner, T>{name, member}),
                          member_list(rest...));
}

namespace internal {

// ---- What a type is in the arguments of a task

template <class T, class = void>
inline constexpr bool kHasMembers = false;
template <class T>
inline constexpr bool kHasMembers<T, std::void_t<decltype(T::kMembers)>> = true;

template <class T>
inline constexpr bool kIsOptional = false;
template <class T>
inline constexpr bool kIsOptional<std::optional<T>> = true;

template <class T>
struct Required {
    using Type = T;
};
template <class T>
struct Required<std::optional<T>> {
    using Type = T;
};

template <class T>
inline constexpr bool kIsLongLong =
    std::is_same_v<T, long long> || std::is_same_v<T, unsigned long long>;

// Whether T is an enum that may have any value of its numbers.
template <class T, class = void>
inline constexpr bool kIsFixedEnum = false;
template <class T>
inline constexpr bool
    kIsFixedEnum<T, std::enable_if_t<std::is_enum_v<T>, std::void_t<decltype(T{0})>>> = true;

template <class T>
inline constexpr bool kIsScalar =
    (std::is_integral_v<T> && !kIsCharacter<T>) || std::is_same_v<T, double> ||
    std::is_same_v<T, std::string> || std::is_same_v<T, Enum> || std::is_same_v<T, Blob> ||
    kIsFixedEnum<T>;

// The type of vexon2_0_arguments.h that stands for T.
template <class T>
struct Wire {
    static_assert(kIsScalar<T> || kHasMembers<T>,
                  "T cannot be an argument or a result: use an integer of 8 to 64 bits, double, "
                  "bool, std::string, vexon::Enum, vexon::Blob, an enum class or an enum with a "
                  "type behind a colon, a struct that has "
                  "kMembers = vexon::member_list(...), or a std::vector or std::optional of one");
    using Integer =
        std::conditional_t<kIsLongLong<T>,
                           std::conditional_t<std::is_signed_v<T>, std::int64_t, std::uint64_t>, T>;
    using Type = std::conditional_t<kHasMembers<T>, Struct,
                                    std::conditional_t<std::is_enum_v<T>, Enum, Integer>>;
};
template <class T>
struct Wire<std::vector<T>> {
    static_assert(!kIsVector<T> && !kIsOptional<T>,
                  "a vector cannot hold vectors or optional values: put them into a struct");
    using Type = std::vector<typename Wire<T>::Type>;
};

template <class T>
using WireType = typename Wire<T>::Type;

// Whether values are held as what they are, so that they need not be copied.
template <class T>
inline constexpr bool kIsHeld = std::is_same_v<T, Held<WireType<T>>>;
template <class T>
inline constexpr bool kIsHeld<std::optional<T>> = false;

// The names of types in a definition, by their tags.
inline constexpr const char* kTypeNames[] = {
    "none",   "uint8",  "uint16",  "uint32", "uint64",   "int8", "int16",  "int32", "int64",
    "double", "string", "boolean", "enum",   "bnry_blb", "cb",   "vector", "struct"};

constexpr const char* type_name(vexon_data_type_t tag) {
    return tag > VEXON_TYPE_STRUCT ? "vector" : kTypeNames[tag];
}

constexpr const char* element_name(vexon_data_type_t vector) {
    return vector == VEXON_TYPE_VECTOR_STRUCT ? "struct" : kTypeNames[vector - VEXON_TYPE_STRUCT];
}

inline std::string type_text(vexon_data_type_t tag) {
    const std::string name = type_name(tag);
    return tag > VEXON_TYPE_STRUCT ? name + " of " + element_name(tag) : name;
}

// ---- Decoding. Each function returns whether it has; if not, `fault` is a text such as
// "[1].on is missing", to which callers put the path so far in front.

template <class Decoded>
bool decode_value(const Held<WireType<Decoded>>& held, Decoded* decoded, std::string* fault);

template <class Decoded>
bool decode_enum(int held, Decoded* decoded, std::string* fault) {
    using Number = std::underlying_type_t<Decoded>;
    const auto number = static_cast<Number>(held);
    if (static_cast<long long>(number) != held || (std::is_unsigned_v<Number> && held < 0)) {
        *fault = " is " + std::to_string(held) + ", which is out of range";
        return false;
    }
    *decoded = static_cast<Decoded>(number);
    return true;
}

template <class T>
bool decode_elements(const Held<WireType<std::vector<T>>>& held, std::vector<T>* decoded,
                     std::string* fault) {
    decoded->resize(held.size());
    for (std::size_t i = 0; i < held.size(); ++i) {
        if (decode_value<T>(held[i], &(*decoded)[i], fault)) continue;
        *fault = '[' + std::to_string(i) + ']' + *fault;
        return false;
    }
    return true;
}

// Looks for the value under `key`. Returns whether the type is right or, as `may_miss` says, there
// is no value; `held` is null then.
template <class T, class From>
bool find_held(const From& from, int key, bool may_miss, const Held<WireType<T>>** held,
               std::string* fault) {
    *held = get<WireType<T>>(from, key);
    if (*held != nullptr) return true;
    const vexon_data_type_t tag = tag_of(from, key);
    if (tag == VEXON_TYPE_NONE && may_miss) return true;
    *fault = tag == VEXON_TYPE_NONE
                 ? std::string(" is missing")
                 : " is " + type_text(tag) + " instead of " + type_text(kTag<WireType<T>>);
    return false;
}

template <class T>
bool decode_member(const Struct& from, int key, T* decoded, std::string* fault) {
    using Value = typename Required<T>::Type;
    static_assert(
        !std::is_same_v<WireType<Value>, std::vector<Struct>>,
        "a struct that is an argument cannot have a vector of structs as member: make the "
        "vector an argument of its own");
    const Held<WireType<Value>>* held = nullptr;
    if (!find_held<Value>(from, key, kIsOptional<T>, &held, fault)) return false;
    if constexpr (kIsOptional<T>) {
        decoded->reset();
        return held == nullptr || decode_value<Value>(*held, &decoded->emplace(), fault);
    } else {
        return decode_value<Value>(*held, decoded, fault);
    }
}

template <class T, std::size_t... kKey>
bool decode_members(const Struct& from, T* decoded, std::string* fault,
                    std::index_sequence<kKey...>) {
    const auto decode = [&](int key, const auto& named) {
        if (decode_member(from, key, &(decoded->*named.member), fault)) return true;
        *fault = std::string(".") + named.name + *fault;
        return false;
    };
    return (... && decode(static_cast<int>(kKey), std::get<kKey>(T::kMembers)));
}

template <class T>
using MemberKeys = std::make_index_sequence<std::tuple_size_v<decltype(T::kMembers)>>;

template <class Decoded>
bool decode_value(const Held<WireType<Decoded>>& held, Decoded* decoded, std::string* fault) {
    if constexpr (kIsVector<Decoded> && !kIsHeld<Decoded>) {
        return decode_elements(held, decoded, fault);
    } else if constexpr (kHasMembers<Decoded>) {
        return decode_members(held, decoded, fault, MemberKeys<Decoded>());
    } else if constexpr (std::is_enum_v<Decoded>) {
        return decode_enum(held, decoded, fault);
    } else if constexpr (std::is_same_v<Decoded, Enum>) {
        decoded->value = held;
    } else if constexpr (std::is_same_v<Decoded, Blob>) {
        decoded->text = held;
    } else {
        *decoded = static_cast<Decoded>(held);
    }
    return true;
}

// One argument of a call. Whatever is held as it is, is not copied.
template <class T>
class Argument {
  public:
    bool decode(const vexon_func_call_info_t& from, int key, std::string* fault) {
        using Value = typename Required<T>::Type;
        const Held<WireType<Value>>* held = nullptr;
        if (!find_held<Value>(from, key, kIsOptional<T>, &held, fault)) return false;
        if constexpr (kIsHeld<T>) {
            value_ = held;
        } else if constexpr (kIsOptional<T>) {
            return held == nullptr || decode_value<Value>(*held, &value_.emplace(), fault);
        } else {
            return decode_value<T>(*held, &value_, fault);
        }
        return true;
    }

    const T& value() const {
        if constexpr (kIsHeld<T>) {
            return *value_;
        } else {
            return value_;
        }
    }

  private:
    std::conditional_t<kIsHeld<T>, const T*, T> value_{};
};

// ---- Describing

template <class T, class... Around, std::size_t... kKey>
std::vector<Object> describe_members(std::index_sequence<kKey...>);

// `Around` are the structs that the value is a member of.
template <class T, class... Around>
void describe_type(Object* description) {
    using Value = typename Required<T>::Type;
    constexpr vexon_data_type_t kValueTag = kTag<WireType<Value>>;
    constexpr bool kVector = kValueTag > VEXON_TYPE_STRUCT;
    description->add("type", type_name(kValueTag));
    if constexpr (kVector) description->add("vec_type", element_name(kValueTag));
    if constexpr (kHasMembers<Value>) {
        static_assert((... && !std::is_same_v<Value, Around>), "a struct cannot hold its own kind");
        description->add("members", describe_members<Value, Value, Around...>(MemberKeys<Value>()));
    } else if constexpr (kValueTag == VEXON_TYPE_VECTOR_STRUCT) {
        using Element = typename Value::value_type;
        static_assert((... && !std::is_same_v<Element, Around>),
                      "a struct cannot hold its own kind");
        description->add("members",
                         describe_members<Element, Element, Around...>(MemberKeys<Element>()));
    }
    if constexpr (kIsOptional<T>) description->add("optional", true);
}

// What stands in the definition for the argument or member `id`.
template <class T, class... Around>
Object describe_item(std::size_t id, std::string_view name) {
    Object description;
    description.add("id", id).add("name", name);
    describe_type<T, Around...>(&description);
    return description;
}

template <class T, class... Around, std::size_t... kKey>
std::vector<Object> describe_members(std::index_sequence<kKey...>) {
    const auto describe_one = [](std::size_t id, const auto& named) {
        using Member = std::decay_t<decltype(std::declval<T&>().*named.member)>;
        return describe_item<Member, Around...>(id, named.name);
    };
    return {describe_one(kKey, std::get<kKey>(T::kMembers))...};
}

// ---- The names of members, for whoever checks them

template <class T>
void add_member_names(std::vector<std::vector<const char*>>* lists) {
    using Value = typename Required<T>::Type;
    if constexpr (kIsVector<Value>) {
        add_member_names<typename Value::value_type>(lists);
    } else if constexpr (kHasMembers<Value>) {
        std::apply(
            [lists](const auto&... named) {
                lists->push_back({named.name...});
                (...,
                 add_member_names<std::decay_t<decltype(std::declval<Value&>().*named.member)>>(
                     lists));
            },
            Value::kMembers);
    }
}

// ---- Writing. Returns what an Object takes for the value.

template <class T>
Object write_struct(const T& value);

template <class T>
auto write_value(const T& value) {
    if constexpr (kHasMembers<T>) {
        return write_struct(value);
    } else if constexpr (std::is_same_v<T, Enum>) {
        return value.value;
    } else if constexpr (std::is_same_v<T, Blob>) {
        return value.text;
    } else if constexpr (std::is_enum_v<T>) {
        return static_cast<long long>(value);
    } else {
        static_assert(kIsScalar<T>);
        return value;
    }
}

template <class T>
void write_member(Object* object, const char* name, const T& value) {
    if constexpr (kIsOptional<T>) {
        if (value) write_member(object, name, *value);
    } else if constexpr (kIsVector<T>) {
        std::vector<decltype(write_value(std::declval<typename T::value_type>()))> written;
        for (auto&& element : value) {
            written.push_back(write_value<typename T::value_type>(element));
        }
        object->add(name, written);
    } else {
        object->add(name, write_value(value));
    }
}

template <class T>
Object write_struct(const T& value) {
    Object object;
    std::apply(
        [&](const auto&... named) {
            (..., write_member(&object, named.name, value.*named.member));
        },
        T::kMembers);
    return object;
}

}  // namespace internal
}  // namespace vexon
