#include "model/SyncOptions.hpp"

#include "common/DecodingError.hpp"
#include "common/Localization.hpp"
#include "common/PlatformWording.hpp"

#include <nlohmann/json.hpp>

#include <array>
#include <utility>

namespace varnel {

namespace {

template <typename E, std::size_t N>
using RawNames = std::array<std::pair<E, std::string_view>, N>;

constexpr RawNames<SyncMode, 2> kSyncModes{{{SyncMode::update, "update"}, {SyncMode::mirror, "mirror"}}};
constexpr RawNames<DurabilityMode, 3> kDurabilityModes{{
    {DurabilityMode::fast, "fast"},
    {DurabilityMode::durable, "durable"},
    {DurabilityMode::maximum, "maximum"},
}};
constexpr RawNames<VerificationMode, 2> kVerificationModes{{
    {VerificationMode::none, "none"},
    {VerificationMode::verifyCopiedFiles, "verifyCopiedFiles"},
}};
constexpr RawNames<MetadataPolicy, 3> kMetadataPolicies{{
    {MetadataPolicy::basic, "basic"},
    {MetadataPolicy::extended, "extended"},
    {MetadataPolicy::strict, "strict"},
}};
constexpr RawNames<HiddenFilePolicy, 2> kHiddenFilePolicies{{
    {HiddenFilePolicy::include, "include"},
    {HiddenFilePolicy::exclude, "exclude"},
}};
constexpr RawNames<OnlineOnlyPolicy, 2> kOnlineOnlyPolicies{{
    {OnlineOnlyPolicy::download, "download"},
    {OnlineOnlyPolicy::skip, "skip"},
}};
constexpr RawNames<SyncRunOutcome, 4> kOutcomes{{
    {SyncRunOutcome::success, "success"},
    {SyncRunOutcome::completedWithWarnings, "completedWithWarnings"},
    {SyncRunOutcome::cancelled, "cancelled"},
    {SyncRunOutcome::failed, "failed"},
}};

template <typename E, std::size_t N>
std::string_view rawName(const RawNames<E, N>& names, E value) {
    for (const auto& [candidate, raw] : names) {
        if (candidate == value) return raw;
    }
    // Only reachable with a value cast from an out-of-range integer.
    return names.front().second;
}

template <typename E, std::size_t N>
std::optional<E> parseRaw(const RawNames<E, N>& names, std::string_view raw) {
    for (const auto& [value, name] : names) {
        if (name == raw) return value;
    }
    return std::nullopt;
}

template <typename E, std::size_t N>
E decodeRaw(const RawNames<E, N>& names, const nlohmann::json& json, const char* typeName) {
    const auto& raw = json.get_ref<const std::string&>();
    if (auto value = parseRaw(names, raw)) return *value;
    throw DecodingError(std::string("Unknown ") + typeName + " value “" + raw + "”");
}

}  // namespace

std::string_view toString(SyncMode value) { return rawName(kSyncModes, value); }
std::string_view toString(DurabilityMode value) { return rawName(kDurabilityModes, value); }
std::string_view toString(VerificationMode value) { return rawName(kVerificationModes, value); }
std::string_view toString(MetadataPolicy value) { return rawName(kMetadataPolicies, value); }
std::string_view toString(HiddenFilePolicy value) { return rawName(kHiddenFilePolicies, value); }
std::string_view toString(OnlineOnlyPolicy value) { return rawName(kOnlineOnlyPolicies, value); }
std::string_view toString(SyncRunOutcome value) { return rawName(kOutcomes, value); }

std::optional<SyncMode> parseSyncMode(std::string_view raw) { return parseRaw(kSyncModes, raw); }
std::optional<DurabilityMode> parseDurabilityMode(std::string_view raw) { return parseRaw(kDurabilityModes, raw); }
std::optional<VerificationMode> parseVerificationMode(std::string_view raw) {
    return parseRaw(kVerificationModes, raw);
}
std::optional<MetadataPolicy> parseMetadataPolicy(std::string_view raw) { return parseRaw(kMetadataPolicies, raw); }
std::optional<HiddenFilePolicy> parseHiddenFilePolicy(std::string_view raw) {
    return parseRaw(kHiddenFilePolicies, raw);
}
std::optional<OnlineOnlyPolicy> parseOnlineOnlyPolicy(std::string_view raw) {
    return parseRaw(kOnlineOnlyPolicies, raw);
}
std::optional<SyncRunOutcome> parseSyncRunOutcome(std::string_view raw) { return parseRaw(kOutcomes, raw); }

std::string displayName(SyncMode value) {
    switch (value) {
        case SyncMode::update: return tr("Update");
        case SyncMode::mirror: return tr("Mirror");
    }
    return tr("Update");
}

std::string displayName(DurabilityMode value) {
    switch (value) {
        case DurabilityMode::fast: return tr("Fast");
        case DurabilityMode::durable: return tr("Durable");
        case DurabilityMode::maximum: return tr("Maximum");
    }
    return tr("Durable");
}

std::string displayName(VerificationMode value) {
    switch (value) {
        case VerificationMode::none: return tr("None");
        case VerificationMode::verifyCopiedFiles: return tr("Verify copied files (SHA-256)");
    }
    return tr("None");
}

std::string displayName(MetadataPolicy value) {
    switch (value) {
        case MetadataPolicy::basic: return tr("Basic");
        case MetadataPolicy::extended: return tr("Extended");
        case MetadataPolicy::strict: return tr("Strict");
    }
    return tr("Extended");
}

std::string displayName(HiddenFilePolicy value) {
    switch (value) {
        case HiddenFilePolicy::include: return tr("Include hidden items");
        case HiddenFilePolicy::exclude: return tr("Exclude hidden items");
    }
    return tr("Include hidden items");
}

std::string displayName(SyncRunOutcome value) {
    switch (value) {
        case SyncRunOutcome::success: return tr("Success");
        case SyncRunOutcome::completedWithWarnings: return tr("Completed with warnings");
        case SyncRunOutcome::cancelled: return tr("Cancelled");
        case SyncRunOutcome::failed: return tr("Failed");
    }
    return tr("Failed");
}

std::string mirrorNeverDeletesNote() {
    return tr("Mirror moves removed items aside, never deletes them");
}

std::string explanation(DurabilityMode value) {
    switch (value) {
        case DurabilityMode::fast:
            return tr("Fastest. Protects against incomplete files and application crashes, but does not force data "
                      "to physical storage before reporting success — a power cut can still lose a file that was "
                      "reported as copied.");
        case DurabilityMode::durable:
            return tr("Flushes each file to the drive before committing it, and flushes the folder entry afterwards. "
                      "Protects against application and system crashes. Slower than Fast.");
        case DurabilityMode::maximum:
            return trFormat("Strongest flush {} offers ({}), which also asks the drive to empty its own write cache. "
                            "May significantly reduce throughput, and still cannot protect against hardware or "
                            "enclosures that ignore flush commands.",
                            platform_wording::kOperatingSystem, platform_wording::kFullFlushCall);
    }
    return {};
}

std::string speedImpact(DurabilityMode value) {
    switch (value) {
        case DurabilityMode::fast: return tr("No durability overhead");
        case DurabilityMode::durable: return tr("Moderate overhead, mostly on small files");
        case DurabilityMode::maximum: return tr("High overhead — can be many times slower on small files");
    }
    return {};
}

std::string optionLabel(OnlineOnlyPolicy value) {
    switch (value) {
        case OnlineOnlyPolicy::download: return tr("Download and copy");
        case OnlineOnlyPolicy::skip: return tr("Skip");
    }
    return tr("Download and copy");
}

std::string explanation(OnlineOnlyPolicy value) {
    switch (value) {
        case OnlineOnlyPolicy::download:
            return trFormat("Online-only files are downloaded by their cloud app while they are copied, and stay "
                            "downloaded on {} afterwards. Files that have not changed are never downloaded.",
                            platform_wording::kThisComputer);
        case OnlineOnlyPolicy::skip:
            return tr("Online-only files are not read and not copied. Their copies in the destination stay as they "
                      "are, and Mirror mode never archives them.");
    }
    return {};
}

void to_json(nlohmann::json& json, SyncMode value) { json = toString(value); }
void from_json(const nlohmann::json& json, SyncMode& value) { value = decodeRaw(kSyncModes, json, "SyncMode"); }
void to_json(nlohmann::json& json, DurabilityMode value) { json = toString(value); }
void from_json(const nlohmann::json& json, DurabilityMode& value) {
    value = decodeRaw(kDurabilityModes, json, "DurabilityMode");
}
void to_json(nlohmann::json& json, VerificationMode value) { json = toString(value); }
void from_json(const nlohmann::json& json, VerificationMode& value) {
    value = decodeRaw(kVerificationModes, json, "VerificationMode");
}
void to_json(nlohmann::json& json, MetadataPolicy value) { json = toString(value); }
void from_json(const nlohmann::json& json, MetadataPolicy& value) {
    value = decodeRaw(kMetadataPolicies, json, "MetadataPolicy");
}
void to_json(nlohmann::json& json, HiddenFilePolicy value) { json = toString(value); }
void from_json(const nlohmann::json& json, HiddenFilePolicy& value) {
    value = decodeRaw(kHiddenFilePolicies, json, "HiddenFilePolicy");
}
void to_json(nlohmann::json& json, OnlineOnlyPolicy value) { json = toString(value); }
void from_json(const nlohmann::json& json, OnlineOnlyPolicy& value) {
    value = decodeRaw(kOnlineOnlyPolicies, json, "OnlineOnlyPolicy");
}
void to_json(nlohmann::json& json, SyncRunOutcome value) { json = toString(value); }
void from_json(const nlohmann::json& json, SyncRunOutcome& value) {
    value = decodeRaw(kOutcomes, json, "SyncRunOutcome");
}

}  // namespace varnel
