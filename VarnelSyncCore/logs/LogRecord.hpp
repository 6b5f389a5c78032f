#pragma once

#include <nlohmann/json.hpp>

#include <cstdint>
#include <string>
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
// Accepts strings, integers, floating-point numbers and booleans; anything else throws
// DecodingError("Unsupported log value").
LogValue logValueFromJSON(const nlohmann::json& json);

// One compact line without the newline.
std::string encodeLine(const LogRecord& record);
LogRecord decodeLine(const std::string& line);

}  // namespace varnel
