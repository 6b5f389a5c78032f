#include "model/SafetyThresholds.hpp"

#include "model/JSONFields.hpp"

namespace varnel {

void to_json(nlohmann::json& json, const SafetyThresholds& thresholds) {
    json = nlohmann::json{
        {"maxItemsBeforeWarning", thresholds.maxItemsBeforeWarning},
        {"maxFractionBeforeWarning", thresholds.maxFractionBeforeWarning},
        {"maxBytesBeforeWarning", thresholds.maxBytesBeforeWarning},
        {"freeSpaceSafetyMarginFraction", thresholds.freeSpaceSafetyMarginFraction},
        {"freeSpaceSafetyMarginMinimum", thresholds.freeSpaceSafetyMarginMinimum},
    };
}

void from_json(const nlohmann::json& json, SafetyThresholds& thresholds) {
    using namespace json_fields;
    requireObject(json, "safety threshold record");
    thresholds.maxItemsBeforeWarning =
        asInteger<std::int64_t>(require(json, "maxItemsBeforeWarning"), "maxItemsBeforeWarning");
    thresholds.maxFractionBeforeWarning =
        asDouble(require(json, "maxFractionBeforeWarning"), "maxFractionBeforeWarning");
    thresholds.maxBytesBeforeWarning =
        asInteger<std::int64_t>(require(json, "maxBytesBeforeWarning"), "maxBytesBeforeWarning");
    thresholds.freeSpaceSafetyMarginFraction =
        asDouble(require(json, "freeSpaceSafetyMarginFraction"), "freeSpaceSafetyMarginFraction");
    thresholds.freeSpaceSafetyMarginMinimum =
        asInteger<std::int64_t>(require(json, "freeSpaceSafetyMarginMinimum"), "freeSpaceSafetyMarginMinimum");
}

}  // namespace varnel
