#include "plan/SyncActionReason.hpp"

#include "common/ByteCount.hpp"
#include "common/DecodingError.hpp"
#include "common/Localization.hpp"
#include "common/Overloaded.hpp"
#include "model/JSONFields.hpp"

#include <nlohmann/json.hpp>

#include <array>

namespace varnel {

namespace {

using R = SyncActionReason;
using Json = nlohmann::json;

constexpr std::array<std::string_view, std::variant_size_v<R::Case>> kNames = {
    "notPresentInDestination", "sizeDiffers",          "sourceIsNewer",     "timestampsDifferAmbiguously",
    "typeChanged",             "symlinkTargetChanged", "identicalMetadata", "missingParentDirectory",
    "notPresentInSource",      "matchedExclusionRule", "hiddenFileSkipped", "unsupportedFileType",
    "caseCollision",           "hardLinkNotPreserved", "sparseFileMayExpand", "symlinkEscapesSourceTree",
    "permissionDenied",        "scanFailure",          "onlineOnlyInSource",
};

EntryKind kindFrom(const Json& json) {
    const auto raw = json.get<std::string>();
    const auto kind = parseEntryKind(raw);
    if (!kind) throw DecodingError("Unknown item kind: " + raw);
    return *kind;
}

// Builds the case whose index is `index` from its payload object.
R::Case decodeCase(std::size_t index, const Json& p) {
    switch (index) {
        case 0: return R::NotPresentInDestination{};
        case 1:
            return R::SizeDiffers{json_fields::integerAt<std::int64_t>(p, "source"),
                                  json_fields::integerAt<std::int64_t>(p, "destination")};
        case 2: return R::SourceIsNewer{p.at("sourceTime").get<FileTimestamp>(), p.at("destinationTime").get<FileTimestamp>()};
        case 3:
            return R::TimestampsDifferAmbiguously{p.at("sourceTime").get<FileTimestamp>(),
                                                  p.at("destinationTime").get<FileTimestamp>()};
        case 4: return R::TypeChanged{kindFrom(p.at("from")), kindFrom(p.at("to"))};
        case 5: {
            const auto from = p.at("from").get<std::string>();
            const auto to = p.at("to").get<std::string>();
            if (from.find('\0') != std::string::npos || to.find('\0') != std::string::npos) {
                throw DecodingError("Invalid link target in: " + p.dump());
            }
            return R::SymlinkTargetChanged{from, to};
        }
        case 6: return R::IdenticalMetadata{};
        case 7: return R::MissingParentDirectory{};
        case 8: return R::NotPresentInSource{};
        case 9: return R::MatchedExclusionRule{p.at("description").get<std::string>()};
        case 10: return R::HiddenFileSkipped{};
        case 11: {
            const auto raw = p.at("_0").get<std::string>();
            const auto reason = parseUnsupportedReason(raw);
            if (!reason) throw DecodingError("Unknown unsupported reason: " + raw);
            return R::UnsupportedFileType{*reason};
        }
        case 12: return R::CaseCollision{p.at("otherPath").get<std::string>()};
        case 13: return R::HardLinkNotPreserved{json_fields::integerAt<std::uint64_t>(p, "linkCount")};
        case 14: return R::SparseFileMayExpand{};
        case 15: return R::SymlinkEscapesSourceTree{p.at("target").get<std::string>()};
        case 16: return R::PermissionDenied{p.at("detail").get<std::string>()};
        case 17: return R::ScanFailure{p.at("detail").get<std::string>()};
        default: return R::OnlineOnlyInSource{};
    }
}

}  // namespace

SyncActionReason::SymlinkTargetChanged::SymlinkTargetChanged(std::string_view from, std::string_view to) {
    std::string targets;
    targets.reserve(from.size() + 1 + to.size());
    targets.append(from).append(1, '\0').append(to);
    targets_ = std::move(targets);
}

std::string_view SyncActionReason::SymlinkTargetChanged::from() const {
    return targets_.view().substr(0, targets_.view().find('\0'));
}

std::string_view SyncActionReason::SymlinkTargetChanged::to() const {
    return targets_.view().substr(targets_.view().find('\0') + 1);
}

std::string_view SyncActionReason::name() const {
    return kNames[case_.index()];
}

std::string SyncActionReason::text() const {
    return std::visit(
        Overloaded{
            [](const NotPresentInDestination&) { return std::string(tr("Not in destination")); },
            [](const SizeDiffers& c) {
                return trFormat("Size differs ({} vs {})", formatByteCount(c.source()), formatByteCount(c.destination()));
            },
            [](const SourceIsNewer&) { return std::string(tr("Source is newer")); },
            [](const TimestampsDifferAmbiguously&) {
                return std::string(tr("Timestamps differ (destination newer than source)"));
            },
            [](const TypeChanged& c) { return trFormat("Type changed from {} to {}", kindWord(c.from), kindWord(c.to)); },
            [](const SymlinkTargetChanged&) { return std::string(tr("Link target changed")); },
            [](const IdenticalMetadata&) { return std::string(tr("Same size and modification time")); },
            [](const MissingParentDirectory&) { return std::string(tr("Parent folder does not exist")); },
            [](const NotPresentInSource&) { return std::string(tr("No longer in source")); },
            [](const MatchedExclusionRule& c) { return trFormat("Excluded by rule: {}", c.description.view()); },
            [](const HiddenFileSkipped&) { return std::string(tr("Hidden file (skipped by profile setting)")); },
            [](const UnsupportedFileType& c) { return trFormat("Unsupported type: {}", phrase(c.reason)); },
            [](const CaseCollision& c) {
                return trFormat("Name collides with “{}” on a case-insensitive volume", c.otherPath.view());
            },
            [](const HardLinkNotPreserved& c) {
                return trFormat("Hard link ({} references) — copied as an independent file", c.linkCount);
            },
            [](const SparseFileMayExpand&) {
                return std::string(tr("Sparse file — allocation may expand on the destination"));
            },
            [](const SymlinkEscapesSourceTree& c) {
                return trFormat("Link points outside the source folder ({})", c.target.view());
            },
            [](const PermissionDenied& c) { return trFormat("Permission denied: {}", c.detail.view()); },
            [](const ScanFailure& c) { return trFormat("Could not read: {}", c.detail.view()); },
            [](const OnlineOnlyInSource&) {
                return std::string(tr("Online-only in the source; this profile skips such files"));
            },
        },
        case_);
}

void to_json(Json& json, const SyncActionReason& reason) {
    Json payload = std::visit(
        Overloaded{
            [](const R::SizeDiffers& c) { return Json{{"source", c.source()}, {"destination", c.destination()}}; },
            [](const R::SourceIsNewer& c) {
                return Json{{"sourceTime", c.sourceTime()}, {"destinationTime", c.destinationTime()}};
            },
            [](const R::TimestampsDifferAmbiguously& c) {
                return Json{{"sourceTime", c.sourceTime()}, {"destinationTime", c.destinationTime()}};
            },
            [](const R::TypeChanged& c) { return Json{{"from", toString(c.from)}, {"to", toString(c.to)}}; },
            [](const R::SymlinkTargetChanged& c) { return Json{{"from", c.from()}, {"to", c.to()}}; },
            [](const R::MatchedExclusionRule& c) { return Json{{"description", c.description.str()}}; },
            [](const R::UnsupportedFileType& c) { return Json{{"_0", toString(c.reason)}}; },
            [](const R::CaseCollision& c) { return Json{{"otherPath", c.otherPath.str()}}; },
            [](const R::HardLinkNotPreserved& c) { return Json{{"linkCount", c.linkCount}}; },
            [](const R::SymlinkEscapesSourceTree& c) { return Json{{"target", c.target.str()}}; },
            [](const R::PermissionDenied& c) { return Json{{"detail", c.detail.str()}}; },
            [](const R::ScanFailure& c) { return Json{{"detail", c.detail.str()}}; },
            [](const auto&) { return Json::object(); },
        },
        reason.value());
    json = Json{{std::string(reason.name()), std::move(payload)}};
}

void from_json(const Json& json, SyncActionReason& reason) {
    if (!json.is_object() || json.size() != 1) {
        throw DecodingError("A reason must be an object with exactly one key: " + json.dump());
    }
    const std::string& key = json.begin().key();
    const Json& payload = json.begin().value();
    for (std::size_t index = 0; index < kNames.size(); ++index) {
        if (kNames[index] == key) {
            reason = SyncActionReason(decodeCase(index, payload));
            return;
        }
    }
    throw DecodingError("Unknown reason: " + key);
}

}  // namespace varnel
