#include "model/JSONFields.hpp"

namespace varnel::json_fields {

namespace {

[[noreturn]] void fail(const char* key, const std::string& problem) {
    throw DecodingError(std::string("“") + key + "”: " + problem);
}

}  // namespace

void requireObject(const nlohmann::json& json, const char* what) {
    if (!json.is_object()) throw DecodingError(std::string("A ") + what + " must be a JSON object.");
}

const nlohmann::json* find(const nlohmann::json& object, const char* key) {
    const auto found = object.find(key);
    if (found == object.end() || found->is_null()) return nullptr;
    return &*found;
}

const nlohmann::json& require(const nlohmann::json& object, const char* key) {
    const auto* value = find(object, key);
    if (value == nullptr) fail(key, "the key is missing.");
    return *value;
}

std::int64_t asInt64(const nlohmann::json& value, const char* key, std::int64_t minimum, std::int64_t maximum) {
    if (value.is_number_unsigned()) {
        const auto number = value.get<std::uint64_t>();
        if (maximum >= 0 && number <= static_cast<std::uint64_t>(maximum)) return static_cast<std::int64_t>(number);
        fail(key, "the number is out of range.");
    }
    if (value.is_number_integer()) {
        const auto number = value.get<std::int64_t>();
        if (number < minimum || number > maximum) fail(key, "the number is out of range.");
        return number;
    }
    fail(key, "expected a whole number.");
}

double asDouble(const nlohmann::json& value, const char* key) {
    if (!value.is_number()) fail(key, "expected a number.");
    return value.get<double>();
}

bool asBool(const nlohmann::json& value, const char* key) {
    if (!value.is_boolean()) fail(key, "expected true or false.");
    return value.get<bool>();
}

std::string asString(const nlohmann::json& value, const char* key) {
    if (!value.is_string()) fail(key, "expected a string.");
    return value.get<std::string>();
}

Date asDate(const nlohmann::json& value, const char* key) {
    const auto text = asString(value, key);
    const auto date = parseISO8601(text);
    if (!date) fail(key, "“" + text + "” is not an ISO 8601 date.");
    // Stored dates are written in whole seconds; a fraction read from a hand-edited file
    // is dropped here, so the value in memory is the one the next save writes.
    return std::chrono::floor<std::chrono::seconds>(*date);
}

std::string withoutLibraryPrefix(const std::string& message) {
    if (message.starts_with("[json.exception.")) {
        const auto end = message.find("] ");
        if (end != std::string::npos) return message.substr(end + 2);
    }
    return message;
}

}  // namespace varnel::json_fields
