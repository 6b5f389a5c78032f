#include "transfer/DurabilitySummary.hpp"

#include "model/JSONFields.hpp"

#include <nlohmann/json.hpp>

namespace varnel {

namespace {

// The integer counters with their keys, in the stored order.
template <typename Summary, typename Visit>
void forEachCount(Summary& summary, Visit&& visit) {
    visit("filesDurablyCommitted", summary.filesDurablyCommitted);
    visit("filesWrittenFastMode", summary.filesWrittenFastMode);
    visit("filesUncertainDurability", summary.filesUncertainDurability);
    visit("fileFlushFailures", summary.fileFlushFailures);
    visit("directoryFlushFailures", summary.directoryFlushFailures);
    visit("fullFlushUnsupportedCount", summary.fullFlushUnsupportedCount);
    visit("directoryTreeFlushFailures", summary.directoryTreeFlushFailures);
    visit("directoriesTreeFlushed", summary.directoriesTreeFlushed);
}

}  // namespace

void DurabilitySummary::record(DurabilityOutcome outcome) {
    switch (outcome) {
        case DurabilityOutcome::fastNoFlush:
            ++filesWrittenFastMode;
            break;
        case DurabilityOutcome::durablyCommitted:
            ++filesDurablyCommitted;
            break;
        case DurabilityOutcome::uncertainDirectoryNotFlushed:
            ++filesUncertainDurability;
            ++directoryFlushFailures;
            break;
        case DurabilityOutcome::durableFullFlushUnsupported:
            ++filesDurablyCommitted;
            ++fullFlushUnsupportedCount;
            break;
    }
}

void DurabilitySummary::addFlushTime(double seconds) {
    if (!(seconds > 0)) return;
    totalFlushSeconds += seconds;
    ++flushCount;
}

std::optional<double> DurabilitySummary::averageFlushMilliseconds() const {
    if (flushCount == 0) return std::nullopt;
    return totalFlushSeconds / flushCount * 1000.0;
}

void to_json(nlohmann::json& json, const DurabilitySummary& summary) {
    json = nlohmann::json::object();
    json["mode"] = summary.mode;
    forEachCount(summary, [&](const char* key, int value) { json[key] = value; });
    json["totalFlushSeconds"] = summary.totalFlushSeconds;
    json["flushCount"] = summary.flushCount;
}

void from_json(const nlohmann::json& json, DurabilitySummary& summary) {
    json_fields::requireObject(json, "durability summary");
    summary = DurabilitySummary();
    if (const auto* mode = json_fields::find(json, "mode")) {
        summary.mode = json_fields::asRecord<DurabilityMode>(*mode, "mode");
    }
    forEachCount(summary, [&](const char* key, int& value) {
        if (const auto* found = json_fields::find(json, key)) value = json_fields::asInteger<int>(*found, key);
    });
    if (const auto* seconds = json_fields::find(json, "totalFlushSeconds")) {
        summary.totalFlushSeconds = json_fields::asDouble(*seconds, "totalFlushSeconds");
    }
    if (const auto* count = json_fields::find(json, "flushCount")) {
        summary.flushCount = json_fields::asInteger<int>(*count, "flushCount");
    }
}

}  // namespace varnel
