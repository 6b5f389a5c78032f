#include "transfer/DurabilityOutcome.hpp"

#include "common/DecodingError.hpp"
#include "common/Localization.hpp"

#include <nlohmann/json.hpp>

#include <array>
#include <utility>

namespace varnel {

namespace {

constexpr std::array<std::pair<DurabilityOutcome, std::string_view>, 4> kRawValues{{
    {DurabilityOutcome::fastNoFlush, "fastNoFlush"},
    {DurabilityOutcome::durablyCommitted, "durablyCommitted"},
    {DurabilityOutcome::uncertainDirectoryNotFlushed, "uncertainDirectoryNotFlushed"},
    {DurabilityOutcome::durableFullFlushUnsupported, "durableFullFlushUnsupported"},
}};

}  // namespace

std::string_view toString(DurabilityOutcome outcome) {
    for (const auto& [value, raw] : kRawValues) {
        if (value == outcome) return raw;
    }
    return "fastNoFlush";  // unreachable: every case is listed
}

std::optional<DurabilityOutcome> parseDurabilityOutcome(std::string_view raw) {
    for (const auto& [value, name] : kRawValues) {
        if (name == raw) return value;
    }
    return std::nullopt;
}

std::string label(DurabilityOutcome outcome) {
    switch (outcome) {
        case DurabilityOutcome::fastNoFlush: return tr("Written (Fast mode)");
        case DurabilityOutcome::durablyCommitted: return tr("Durably committed");
        case DurabilityOutcome::uncertainDirectoryNotFlushed: return tr("Durability uncertain");
        case DurabilityOutcome::durableFullFlushUnsupported: return tr("Durably committed (full flush unsupported)");
    }
    return tr("Durably committed");
}

DurabilityOutcome chooseDurabilityOutcome(DurabilityMode mode, bool folderFlushFailed, bool fellBackFromFullFlush) {
    if (mode == DurabilityMode::fast) return DurabilityOutcome::fastNoFlush;
    if (folderFlushFailed) return DurabilityOutcome::uncertainDirectoryNotFlushed;
    if (fellBackFromFullFlush) return DurabilityOutcome::durableFullFlushUnsupported;
    return DurabilityOutcome::durablyCommitted;
}

void to_json(nlohmann::json& json, DurabilityOutcome outcome) { json = std::string(toString(outcome)); }

void from_json(const nlohmann::json& json, DurabilityOutcome& outcome) {
    const auto raw = json.get<std::string>();
    const auto parsed = parseDurabilityOutcome(raw);
    if (!parsed) throw DecodingError("Unknown durability outcome: " + raw);
    outcome = *parsed;
}

}  // namespace varnel
