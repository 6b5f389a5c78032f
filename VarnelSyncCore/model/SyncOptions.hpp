#pragma once
// The option types a profile holds. Every enumeration is stored by its case name, so
// toString/parse give exactly those names; display names and explanations are the
// sentences the editor shows.

#include <nlohmann/json_fwd.hpp>

#include <optional>
#include <string>
#include <string_view>

namespace varnel {

// Update adds and replaces; Mirror also moves destination-only items into the archive.
enum class SyncMode { update, mirror };
// How hard each committed file is flushed to storage.
enum class DurabilityMode { fast, durable, maximum };
// Whether copied files are re-read and compared by SHA-256.
enum class VerificationMode { none, verifyCopiedFiles };
// How much metadata is copied and how strictly.
enum class MetadataPolicy { basic, extended, strict };
// Whether hidden items take part in a sync.
enum class HiddenFilePolicy { include, exclude };
// What happens to source files whose contents live only in the cloud.
enum class OnlineOnlyPolicy { download, skip };
// How a run ended.
enum class SyncRunOutcome { success, completedWithWarnings, cancelled, failed };

std::string_view toString(SyncMode value);
std::string_view toString(DurabilityMode value);
std::string_view toString(VerificationMode value);
std::string_view toString(MetadataPolicy value);
std::string_view toString(HiddenFilePolicy value);
std::string_view toString(OnlineOnlyPolicy value);
std::string_view toString(SyncRunOutcome value);

std::optional<SyncMode> parseSyncMode(std::string_view raw);
std::optional<DurabilityMode> parseDurabilityMode(std::string_view raw);
std::optional<VerificationMode> parseVerificationMode(std::string_view raw);
std::optional<MetadataPolicy> parseMetadataPolicy(std::string_view raw);
std::optional<HiddenFilePolicy> parseHiddenFilePolicy(std::string_view raw);
std::optional<OnlineOnlyPolicy> parseOnlineOnlyPolicy(std::string_view raw);
std::optional<SyncRunOutcome> parseSyncRunOutcome(std::string_view raw);

// Names for pickers and lists ("Update", "Durable", "Completed with warnings", ...).
std::string displayName(SyncMode value);
std::string displayName(DurabilityMode value);
std::string displayName(VerificationMode value);
std::string displayName(MetadataPolicy value);
std::string displayName(HiddenFilePolicy value);
std::string displayName(SyncRunOutcome value);

// "Mirror moves removed items aside, never deletes them"
std::string mirrorNeverDeletesNote();

// The text under the durability picker.
std::string explanation(DurabilityMode value);
// The expected speed impact of a durability mode.
std::string speedImpact(DurabilityMode value);

// "Download and copy" / "Skip".
std::string optionLabel(OnlineOnlyPolicy value);
// The text the editor shows for the chosen online-only policy.
std::string explanation(OnlineOnlyPolicy value);

// Stored by raw value; an unknown raw value throws DecodingError, a non-string value
// nlohmann's type_error.
void to_json(nlohmann::json& json, SyncMode value);
void from_json(const nlohmann::json& json, SyncMode& value);
void to_json(nlohmann::json& json, DurabilityMode value);
void from_json(const nlohmann::json& json, DurabilityMode& value);
void to_json(nlohmann::json& json, VerificationMode value);
void from_json(const nlohmann::json& json, VerificationMode& value);
void to_json(nlohmann::json& json, MetadataPolicy value);
void from_json(const nlohmann::json& json, MetadataPolicy& value);
void to_json(nlohmann::json& json, HiddenFilePolicy value);
void from_json(const nlohmann::json& json, HiddenFilePolicy& value);
void to_json(nlohmann::json& json, OnlineOnlyPolicy value);
void from_json(const nlohmann::json& json, OnlineOnlyPolicy& value);
void to_json(nlohmann::json& json, SyncRunOutcome value);
void from_json(const nlohmann::json& json, SyncRunOutcome& value);

}  // namespace varnel
