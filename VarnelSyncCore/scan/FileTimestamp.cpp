#include "scan/FileTimestamp.hpp"

#include "common/DecodingError.hpp"
#include "model/JSONFields.hpp"

#include <nlohmann/json.hpp>

namespace varnel {

void to_json(nlohmann::json& json, const FileTimestamp& timestamp) {
    json = nlohmann::json{{"seconds", std::int64_t{timestamp.seconds}}, {"nanoseconds", timestamp.nanoseconds}};
}

void from_json(const nlohmann::json& json, FileTimestamp& timestamp) {
    timestamp.seconds = json_fields::integerAt<std::int64_t>(json, "seconds");
    const auto nanoseconds = json_fields::integerAt<std::int64_t>(json, "nanoseconds");
    // Out-of-range counts are no time at all (and -1 marks an absent OptionalTimestamp).
    if (nanoseconds < 0 || nanoseconds > 999'999'999) throw DecodingError("Invalid file time: " + json.dump());
    timestamp.nanoseconds = static_cast<std::int32_t>(nanoseconds);
}

}  // namespace varnel
