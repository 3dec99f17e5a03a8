#include "manager/json.h"

#include <json/reader.h>
#include <json/writer.h>

#include <memory>

namespace manager {
namespace {

std::string compact(const Json::Value& value) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return Json::writeString(builder, value);
}

}  // namespace

std::optional<Json::Value> parse_json(const std::string& text) try {
    Json::CharReaderBuilder builder;
    builder["collectComments"] = false;
    builder["failIfExtra"] = true;
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value value;
    if (!reader->parse(text.data(), text.data() + text.size(), &value, nullptr)) return {};
    return value;
} catch (const Json::Exception&) {
    // Thrown for a text that nests too deeply.
    return std::nullopt;
}

const Json::Value& member(const Json::Value& value, const char* name) {
    return value.isObject() ? value[name] : Json::Value::nullSingleton();
}

std::string json_string(const std::string& text) {
    return compact(text);
}

std::string json_strings(const std::vector<std::string>& texts) {
    Json::Value array(Json::arrayValue);
    for (const std::string& text : texts) array.append(text);
    return compact(array);
}

}  // namespace manager
