// SPDX-License-Identifier: Apache-2.0
// Parsing of JSON text and access to what it holds.
//
// jsoncpp reports misuse (a value of a wrong kind, text that nests too deeply) by an exception, or
// by ending the process where it is built without exceptions, as on Android. What a peer sent must
// do neither, so text and kinds are tested here before jsoncpp is asked.
//
// A JsonReader belongs to one thread; the functions may be called from any thread.

#pragma once

#include <json/json.h>

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>

// A member that is of a wrong kind, or a number that its type cannot hold.
class MalformedMessage : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// Parses any number of texts, with comments and without trailing commas.
class JsonReader {
  public:
    JsonReader();

    // Parses the text from `begin` to `end` into `root`. Returns false, with the reason in `error`
    // unless that is null, if it is no JSON or nests 1,000 levels deep or more.
    bool parse(const char* begin, const char* end, Json::Value* root, std::string* error);

  private:
    const std::unique_ptr<Json::CharReader> reader_;
};

// Returns the member of `object`, a null pointer if it is absent. This and all other functions that
// take a key throw MalformedMessage if `object` is neither an object nor null.
const Json::Value* find_member(const Json::Value& object, std::string_view key);

// Returns the member or, if it is absent, a null value.
const Json::Value& member(const Json::Value& object, std::string_view key);

// Return the value as text or number, converted as jsoncpp does: scalars of all kinds have a text,
// null is empty or 0. Throw MalformedMessage where there is no conversion.
std::string as_text(const Json::Value& value);
int as_int(const Json::Value& value);
unsigned int as_uint(const Json::Value& value);

// Return the member converted in the same way, or `missing` if it is absent.
std::string text_member(const Json::Value& object, std::string_view key, const char* missing);
int int_member(const Json::Value& object, std::string_view key, int missing);
unsigned int uint_member(const Json::Value& object, std::string_view key, unsigned int missing);
