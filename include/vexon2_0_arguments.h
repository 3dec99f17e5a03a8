// SPDX-License-Identifier: Apache-2.0
/// \file
/// Typed access to the arguments of a task and to the members of structs, so that no service casts
/// by hand. Header only; needs nothing but vexon2_0.h.
///
///     int on_task(_vexon_call_info_t* call, vexon_func_call_info_t args) {
///         const double* celsius = vexon::get<double>(args, 0);
///         const vexon::Struct* period = vexon::get<vexon::Struct>(args, 1);
///         ...
///         const auto* rooms = vexon::get<std::vector<std::string>>(*period, 7);
///
/// Keys. The key of an argument or a member is its "id", with one exception: the key of a struct
/// that is itself an argument is its position among the arguments, counted from 0.
///
/// Types. Ask for the type that the API definition names, by this table; what is not in it does not
/// compile. std::int64_t and std::uint64_t are long and unsigned long where a long has 64 bits, and
/// long long elsewhere.
///
///     uint8    unsigned char      int8    signed char    double    double
///     uint16   unsigned short     int16   short          string    std::string
///     uint32   unsigned int       int32   int            boolean   bool
///     uint64   std::uint64_t      int64   std::int64_t   enum      vexon::Enum
///     struct   vexon::Struct                             bnry_blb  vexon::Blob
///
/// A vector of them is a std::vector. What differs is what a value is held as: vexon::Enum as int,
/// vexon::Blob as std::string, std::vector<vexon::Enum> as std::vector<int> and so on.
///
/// Ownership. What get(), members() and Member return points into the call and is gone when the
/// exec callback has returned; get_shared() keeps a value beyond that. Only type_queue is used.
///
/// Thread-safety: everything here only reads. The arguments of one call may be read by several
/// threads at once, and values be kept and released by any thread.

#pragma once

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "vexon2_0.h"

namespace vexon {

/// Names for types that share their holder with another: an enum is held as an int32 is, a blob as
/// a string is. vexon2_0_typed.h has objects of these, here there are none.
struct Enum;
struct Blob;

/// The members of a struct by their keys.
using Struct = vexon_type_map_t;

namespace internal {

template <class T>
inline constexpr bool kNever = false;

template <vexon_data_type_t kTypeTag, class HeldType>
struct Entry {
    static constexpr vexon_data_type_t kTag = kTypeTag;
    using Held = HeldType;
};

// The table: what a type is tagged with and held as.
template <class T>
struct Type {
    static_assert(kNever<T>,
                  "T is not a type of arguments: use one of those listed in vexon2_0_arguments.h, "
                  "such as int, std::int64_t, double, std::string, vexon::Enum or a std::vector");
};

template <>
struct Type<unsigned char> : Entry<VEXON_TYPE_UINT8, unsigned char> {};
template <>
struct Type<unsigned short> : Entry<VEXON_TYPE_UINT16, unsigned short> {};
template <>
struct Type<unsigned int> : Entry<VEXON_TYPE_UINT32, unsigned int> {};
template <>
struct Type<std::uint64_t> : Entry<VEXON_TYPE_UINT64, std::uint64_t> {};
template <>
struct Type<signed char> : Entry<VEXON_TYPE_INT8, signed char> {};
template <>
struct Type<short> : Entry<VEXON_TYPE_INT16, short> {};
template <>
struct Type<int> : Entry<VEXON_TYPE_INT32, int> {};
template <>
struct Type<std::int64_t> : Entry<VEXON_TYPE_INT64, std::int64_t> {};
template <>
struct Type<double> : Entry<VEXON_TYPE_DOUBLE, double> {};
template <>
struct Type<std::string> : Entry<VEXON_TYPE_STRING, std::string> {};
template <>
struct Type<bool> : Entry<VEXON_TYPE_BOOLEAN, bool> {};
template <>
struct Type<Enum> : Entry<VEXON_TYPE_ENUM, int> {};
template <>
struct Type<Blob> : Entry<VEXON_TYPE_BLOB, std::string> {};
template <>
struct Type<Struct> : Entry<VEXON_TYPE_STRUCT, Struct> {};

// The two tags before that of a struct have no vector, hence the exception.
constexpr vexon_data_type_t vector_tag(vexon_data_type_t element) {
    if (element == VEXON_TYPE_STRUCT) return VEXON_TYPE_VECTOR_STRUCT;
    return static_cast<vexon_data_type_t>(VEXON_TYPE_STRUCT + element);
}

template <class T>
struct Type<std::vector<T>>
    : Entry<vector_tag(Type<T>::kTag), std::vector<typename Type<T>::Held>> {
    static_assert(Type<T>::kTag <= VEXON_TYPE_STRUCT, "there are no vectors of vectors");
};

// Returns the value of an entry of a typed map, or null if its tag is not that of T.
template <class T>
const typename Type<T>::Held* held(const vexon_type_map_t::mapped_type& entry) {
    if (entry.first != Type<T>::kTag) return nullptr;
    return &static_cast<const ParamValues<typename Type<T>::Held>*>(entry.second.get())->value;
}

template <class T>
std::shared_ptr<const typename Type<T>::Held> held_shared(
    const vexon_type_map_t::mapped_type& entry) {
    const auto* value = held<T>(entry);
    if (value == nullptr) return nullptr;
    return {entry.second, value};
}

inline const vexon_type_map_t::mapped_type* find(const Struct& members, int key) {
    const auto found = members.find(key);
    return found == members.end() ? nullptr : &found->second;
}

inline const vexon_type_map_t::mapped_type* find(const vexon_func_call_info_t& args, int key) {
    return args.type_queue == nullptr ? nullptr : find(*args.type_queue, key);
}

}  // namespace internal

/// What a value of type T is held as: T itself, int for Enum, std::string for Blob.
template <class T>
using Held = typename internal::Type<T>::Held;

/// The tag of type T, to be compared with tag_of() and Member::tag().
template <class T>
inline constexpr vexon_data_type_t kTag = internal::Type<T>::kTag;

/// The functions below take the arguments of a call (const vexon_func_call_info_t&) or the members
/// of a struct (const Struct&) as `from`. A call without arguments, whose queues are null, is one
/// in which every key is missing.

/// Returns the value under `key`, or null if there is none or it is not of type T: tag_of() tells
/// which. The value belongs to the call; see the top of this file.
template <class T, class From>
const Held<T>* get(const From& from, int key) {
    const auto* entry = internal::find(from, key);
    return entry == nullptr ? nullptr : internal::held<T>(*entry);
}

/// As get(), but the value stays for as long as the result or a copy of it.
template <class T, class From>
std::shared_ptr<const Held<T>> get_shared(const From& from, int key) {
    const auto* entry = internal::find(from, key);
    return entry == nullptr ? nullptr : internal::held_shared<T>(*entry);
}

/// Returns the tag of the value under `key`, or VEXON_TYPE_NONE, which no value has, if there is
/// none.
template <class From>
vexon_data_type_t tag_of(const From& from, int key) {
    const auto* entry = internal::find(from, key);
    return entry == nullptr ? VEXON_TYPE_NONE : entry->first;
}

/// An argument or a member of a struct as it is met by members(). It refers to it and is copied
/// freely.
class Member {
  public:
    /// Refers to the entry of a typed map.
    explicit Member(const vexon_type_map_t::value_type& entry) : entry_(&entry) {}

    /// Returns its key.
    int key() const { return entry_->first; }
    /// Returns its tag.
    vexon_data_type_t tag() const { return entry_->second.first; }

    /// Returns the value, or null if it is not of type T. It belongs to the call.
    template <class T>
    const Held<T>* as() const {
        return internal::held<T>(entry_->second);
    }

    /// As as(), but the value stays for as long as the result or a copy of it.
    template <class T>
    std::shared_ptr<const Held<T>> as_shared() const {
        return internal::held_shared<T>(entry_->second);
    }

  private:
    const vexon_type_map_t::value_type* entry_;
};

/// A range of Member, for range-based loops and the algorithms of the standard library.
class Members {
  public:
    /// An input iterator.
    class Iterator {
      public:
        /// \cond the usual parts of an iterator
        using iterator_category = std::input_iterator_tag;
        using value_type = Member;
        using difference_type = std::ptrdiff_t;
        using pointer = void;
        using reference = Member;

        Iterator() = default;
        explicit Iterator(vexon_type_map_t::const_iterator at) : at_(at) {}

        Member operator*() const { return Member(*at_); }
        Iterator& operator++() {
            ++at_;
            return *this;
        }
        Iterator operator++(int) { return Iterator(at_++); }
        bool operator==(const Iterator& other) const { return at_ == other.at_; }
        bool operator!=(const Iterator& other) const { return at_ != other.at_; }
        /// \endcond

      private:
        vexon_type_map_t::const_iterator at_;
    };

    Members() = default;
    /// Those of a struct; without it, none.
    explicit Members(const Struct& members) : begin_(members.begin()), end_(members.end()) {}

    /// Returns where they begin.
    Iterator begin() const { return begin_; }
    /// Returns where they end.
    Iterator end() const { return end_; }
    /// Returns whether there are none.
    bool empty() const { return begin_ == end_; }

  private:
    Iterator begin_;
    Iterator end_;
};

/// Returns the members of a struct, or the arguments of a call (none if its queues are null), in
/// the order of their keys:
///
///     for (const vexon::Member member : vexon::members(period)) {
///         if (const auto* text = member.as<std::string>()) use(member.key(), *text);
///     }
inline Members members(const Struct& from) {
    return Members(from);
}
/// The same for the arguments of a call.
inline Members members(const vexon_func_call_info_t& from) {
    return from.type_queue == nullptr ? Members() : Members(*from.type_queue);
}

}  // namespace vexon
