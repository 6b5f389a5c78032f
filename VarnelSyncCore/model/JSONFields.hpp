#pragma once
// Strict reading of stored JSON fields. Every failure is a DecodingError that names the
// key, so a damaged profiles file can be explained. Integers must be whole numbers in
// range (1.5 or 1e30 for an hour is damage, not something to round).

#include "common/Date.hpp"
#include "common/DecodingError.hpp"

#include <nlohmann/json.hpp>

#include <concepts>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <utility>

namespace varnel::json_fields {

// Throws unless `json` is an object; `what` names the record ("profile", "schedule").
void requireObject(const nlohmann::json& json, const char* what);

// The value under `key`, or nullptr when the key is absent or null.
const nlohmann::json* find(const nlohmann::json& object, const char* key);
// The value under `key`; throws when absent or null.
const nlohmann::json& require(const nlohmann::json& object, const char* key);

std::int64_t asInt64(const nlohmann::json& value, const char* key, std::int64_t minimum, std::int64_t maximum);

// A whole number that T holds; unsigned 64-bit fields stop at the signed maximum.
template <std::integral T>
T asInteger(const nlohmann::json& value, const char* key) {
    constexpr std::int64_t kLargest = std::numeric_limits<std::int64_t>::max();
    constexpr std::int64_t kMaximum = std::cmp_less(kLargest, std::numeric_limits<T>::max())
                                          ? kLargest
                                          : static_cast<std::int64_t>(std::numeric_limits<T>::max());
    return static_cast<T>(asInt64(value, key, std::numeric_limits<T>::min(), kMaximum));
}
// The same, under `key` of `object`, which must be there.
template <std::integral T>
T integerAt(const nlohmann::json& object, const char* key) {
    return asInteger<T>(require(object, key), key);
}

double asDouble(const nlohmann::json& value, const char* key);
inline double doubleAt(const nlohmann::json& object, const char* key) { return asDouble(require(object, key), key); }
bool asBool(const nlohmann::json& value, const char* key);
std::string asString(const nlohmann::json& value, const char* key);
// An ISO 8601 date string, in whole seconds (a fraction is dropped).
Date asDate(const nlohmann::json& value, const char* key);

// nlohmann's messages begin with "[json.exception.type_error.302] "; users need only the rest.
std::string withoutLibraryPrefix(const std::string& message);

// Runs nlohmann's own conversion (records with their own from_json), turning its
// exceptions into a DecodingError that names the key.
template <typename T>
T asRecord(const nlohmann::json& value, const char* key) {
    try {
        return value.get<T>();
    } catch (const DecodingError& error) {
        throw DecodingError(std::string("“") + key + "”: " + error.what());
    } catch (const nlohmann::json::exception& error) {
        throw DecodingError(std::string("“") + key + "”: " + withoutLibraryPrefix(error.what()));
    }
}

}  // namespace varnel::json_fields
