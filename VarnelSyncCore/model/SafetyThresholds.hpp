#pragma once

#include <nlohmann/json_fwd.hpp>

#include <cstdint>

namespace varnel {

// When a Mirror plan needs extra confirmation (the first three) and how much free space
// stays untouched on the destination (the last two). The member defaults are the single
// default value: for profiles saved without thresholds and as the seed of the
// new-profile preferences.
struct SafetyThresholds {
    std::int64_t maxItemsBeforeWarning = 100;
    double maxFractionBeforeWarning = 0.1;                 // fraction of the destination, 0...1
    std::int64_t maxBytesBeforeWarning = 10'000'000'000;   // 10 GB, decimal
    double freeSpaceSafetyMarginFraction = 0.05;
    std::int64_t freeSpaceSafetyMarginMinimum = 256'000'000;

    friend bool operator==(const SafetyThresholds&, const SafetyThresholds&) = default;
};

// Keys are the field names. Inside stored thresholds every key is required: only this
// program writes them, so a missing one means the record is damaged.
void to_json(nlohmann::json& json, const SafetyThresholds& thresholds);
void from_json(const nlohmann::json& json, SafetyThresholds& thresholds);

}  // namespace varnel
