#include "logs/LogRecord.hpp"

#include "common/DecodingError.hpp"
#include "common/Overloaded.hpp"
#include "model/JSONFields.hpp"

namespace varnel {

nlohmann::ordered_json toJSON(const LogValue& value) {
    return std::visit([](const auto& v) { return nlohmann::ordered_json(v); }, value);
}

namespace {

// Shared by both JSON flavours. Only the four scalar kinds are read, so a deeply nested
// value is refused without being copied or walked.
template <typename JSON>
LogValue logValueFrom(const JSON& json) {
    if (json.is_string()) return json.template get<std::string>();
    if (json.is_boolean()) return json.template get<bool>();
    if (json.is_number_integer()) {
        if (json.is_number_unsigned() && json.template get<std::uint64_t>() > static_cast<std::uint64_t>(INT64_MAX)) {
            throw DecodingError("Unsupported log value");
        }
        return json.template get<std::int64_t>();
    }
    if (json.is_number_float()) return json.template get<double>();
    throw DecodingError("Unsupported log value");
}

}  // namespace

LogValue logValueFromJSON(const nlohmann::json& json) { return logValueFrom(json); }
LogValue logValueFromJSON(const nlohmann::ordered_json& json) { return logValueFrom(json); }

std::string encodeLine(const LogRecord& record) {
    nlohmann::ordered_json payload = nlohmann::ordered_json::object();
    for (const auto& [key, value] : record.payload) payload[key] = toJSON(value);
    nlohmann::ordered_json line;
    line["timestamp"] = record.timestamp;
    line["kind"] = record.kind;
    line["payload"] = std::move(payload);
    // Invalid UTF-8 in a path must not make the whole log unwritable.
    return line.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
}

LogRecord decodeLine(const std::string& line) {
    nlohmann::ordered_json json;
    try {
        json = nlohmann::ordered_json::parse(line);
    } catch (const nlohmann::ordered_json::exception& error) {
        throw DecodingError(json_fields::withoutLibraryPrefix(error.what()));
    }
    if (!json.is_object()) throw DecodingError("A log record must be a JSON object.");
    const auto field = [&](const char* key) -> const nlohmann::ordered_json& {
        const auto found = json.find(key);
        if (found == json.end()) throw DecodingError(std::string("A log record needs “") + key + "”.");
        return *found;
    };
    const auto& timestamp = field("timestamp");
    const auto& kind = field("kind");
    const auto& payload = field("payload");
    if (!timestamp.is_string() || !kind.is_string() || !payload.is_object()) {
        throw DecodingError("A log record needs a text “timestamp” and “kind” and an object “payload”.");
    }
    LogRecord record;
    record.timestamp = timestamp.get<std::string>();
    record.kind = kind.get<std::string>();
    for (const auto& [key, value] : payload.items()) {
        record.add(key, logValueFromJSON(value));
    }
    return record;
}

std::vector<LogRecord> decodeLog(std::string_view text) {
    std::vector<LogRecord> records;
    std::size_t lineNumber = 0;
    for (std::size_t start = 0; start < text.size();) {
        std::size_t end = text.find('\n', start);
        if (end == std::string_view::npos) end = text.size();
        const std::string_view line = text.substr(start, end - start);
        ++lineNumber;
        start = end + 1;
        if (line.empty()) continue;
        try {
            records.push_back(decodeLine(std::string(line)));
        } catch (const DecodingError& error) {
            const bool isLastLine = text.find_first_not_of('\n', end) == std::string_view::npos;
            if (isLastLine) break;
            throw DecodingError("Line " + std::to_string(lineNumber) + ": " + error.what());
        }
    }
    return records;
}

}  // namespace varnel
