#include "logs/LogRecord.hpp"

#include "common/DecodingError.hpp"
#include "common/Overloaded.hpp"

namespace varnel {

nlohmann::ordered_json toJSON(const LogValue& value) {
    return std::visit([](const auto& v) { return nlohmann::ordered_json(v); }, value);
}

LogValue logValueFromJSON(const nlohmann::json& json) {
    if (json.is_string()) return json.get<std::string>();
    if (json.is_boolean()) return json.get<bool>();
    if (json.is_number_integer()) {
        if (json.is_number_unsigned() && json.get<std::uint64_t>() > static_cast<std::uint64_t>(INT64_MAX)) {
            throw DecodingError("Unsupported log value");
        }
        return json.get<std::int64_t>();
    }
    if (json.is_number_float()) return json.get<double>();
    throw DecodingError("Unsupported log value");
}

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
    const auto json = nlohmann::ordered_json::parse(line);
    LogRecord record;
    record.timestamp = json.at("timestamp").get<std::string>();
    record.kind = json.at("kind").get<std::string>();
    for (const auto& [key, value] : json.at("payload").items()) {
        record.add(key, logValueFromJSON(value));
    }
    return record;
}

}  // namespace varnel
