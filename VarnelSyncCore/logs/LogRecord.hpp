#pragma once

#include <nlohmann/json.hpp>

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

namespace varnel {

// A value in a run log record, written as the bare JSON value.
using LogValue = std::variant<std::string, std::int64_t, double, bool>;

// One line of a run log: {"timestamp":…,"kind":…,"payload":{…}}. Payload keys keep
// the order they were added in.
struct LogRecord {
    std::string timestamp;
    std::string kind;
    std::vector<std::pair<std::string, LogValue>> payload;

    void add(std::string key, LogValue value) { payload.emplace_back(std::move(key), std::move(value)); }
    friend bool operator==(const LogRecord&, const LogRecord&) = default;
};

nlohmann::ordered_json toJSON(const LogValue& value);
// Accepts strings, integers, finite floating-point numbers and booleans; anything else
// (null, arrays, objects, integers beyond 64 bits signed) throws
// DecodingError("Unsupported log value").
LogValue logValueFromJSON(const nlohmann::json& json);
LogValue logValueFromJSON(const nlohmann::ordered_json& json);

// One compact line without the newline.
std::string encodeLine(const LogRecord& record);
// Throws DecodingError for a line that is not one record: malformed JSON, not an object,
// "timestamp" or "kind" missing or not a string, "payload" missing or not an object, or
// an unsupported value.
LogRecord decodeLine(const std::string& line);

// The records of a whole log, in file order; empty lines are ignored. The last line is
// skipped when it does not decode: it is what a writer stopped mid-line leaves behind.
// A damaged line before it throws DecodingError naming its line number.
std::vector<LogRecord> decodeLog(std::string_view text);

}  // namespace varnel
