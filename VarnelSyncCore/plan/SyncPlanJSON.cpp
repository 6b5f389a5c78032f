// JSON coding of the plan and its parts. Keys are the field names; optionals are
// written only when present.
#include "common/DecodingError.hpp"
#include "model/JSONFields.hpp"
#include "plan/PlanNote.hpp"
#include "plan/SyncAction.hpp"
#include "plan/SyncPlan.hpp"
#include "plan/SyncPlanSummary.hpp"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <charconv>
#include <concepts>
#include <optional>
#include <string_view>

namespace varnel {

namespace {

using Json = nlohmann::json;
using json_fields::asInt64;
using json_fields::asInteger;
using json_fields::integerAt;
using json_fields::require;

// std::optional and the compact optionals of FileSystemEntry.
template <typename Optional>
void putOptional(Json& json, const char* key, const Optional& value) {
    if (value) json[key] = *value;
}

template <typename T>
std::optional<T> getOptional(const Json& json, const char* key) {
    const auto found = json.find(key);
    if (found == json.end() || found->is_null()) return std::nullopt;
    return found->get<T>();
}

// Every summary field with its key, in declaration order.
template <typename Summary, typename Visit>
void forEachSummaryField(Summary& s, Visit&& visit) {
    visit("directoriesToCreate", s.directoriesToCreate);
    visit("filesToCopy", s.filesToCopy);
    visit("filesToUpdate", s.filesToUpdate);
    visit("filesUnchanged", s.filesUnchanged);
    visit("symlinksToCreate", s.symlinksToCreate);
    visit("symlinksToUpdate", s.symlinksToUpdate);
    visit("itemsToArchive", s.itemsToArchive);
    visit("itemsExcluded", s.itemsExcluded);
    visit("itemsUnsupported", s.itemsUnsupported);
    visit("warningCount", s.warningCount);
    visit("errorCount", s.errorCount);
    visit("bytesToTransfer", s.bytesToTransfer);
    visit("bytesToArchive", s.bytesToArchive);
    visit("bytesBeingReplaced", s.bytesBeingReplaced);
    visit("largestFileBytes", s.largestFileBytes);
    visit("totalSourceItemsScanned", s.totalSourceItemsScanned);
    visit("totalDestinationItemsScanned", s.totalDestinationItemsScanned);
    visit("filesToDownload", s.filesToDownload);
    visit("bytesToDownload", s.bytesToDownload);
    visit("filesSkippedOnlineOnly", s.filesSkippedOnlineOnly);
    visit("bytesSkippedOnlineOnly", s.bytesSkippedOnlineOnly);
    visit("onlineOnlyFilesUnchanged", s.onlineOnlyFilesUnchanged);
    visit("destinationOnlineOnlyFiles", s.destinationOnlineOnlyFiles);
}

// Compact JSON written straight into a string, matching nlohmann's dump(-1) with
// replaced invalid UTF-8 byte for byte. Fields must be given in sorted key order, as
// nlohmann::json keeps them; an absent optional writes nothing.
class CompactWriter {
public:
    explicit CompactWriter(std::string& out) : out_(out) {}

    void beginObject() {
        out_ += '{';
        first_ = true;
    }
    void endObject() {
        out_ += '}';
        first_ = false;
    }

    template <typename T>
    void field(std::string_view key, const T& value) {
        out_ += first_ ? "\"" : ",\"";
        out_ += key;  // every key here is plain ASCII
        out_ += "\":";
        first_ = false;
        write(value);
    }
    // std::optional and the compact optionals of FileSystemEntry.
    template <typename Optional>
        requires requires(const Optional& value) {
            value.has_value();
            *value;
        }
    void field(std::string_view key, const Optional& value) {
        if (value) field(key, *value);
    }

private:
    template <std::integral Integer>
        requires(!std::same_as<Integer, bool>)
    void write(Integer value) {
        char digits[24];
        const auto end = std::to_chars(digits, digits + sizeof digits, value).ptr;
        out_.append(digits, end);
    }
    void write(bool value) { out_ += value ? "true" : "false"; }
    void write(const std::string& text) { write(std::string_view(text)); }
    void write(std::string_view text) {
        // Plain printable ASCII needs no escaping; anything else takes nlohmann's path.
        for (const char c : text) {
            const auto byte = static_cast<unsigned char>(c);
            if (byte < 0x20 || byte >= 0x80 || c == '"' || c == '\\') {
                write(Json(std::string(text)));
                return;
            }
        }
        out_ += '"';
        out_ += text;
        out_ += '"';
    }
    void write(const Json& value) { out_ += value.dump(-1, ' ', false, Json::error_handler_t::replace); }
    void write(const RelativePath& path) { write(std::string_view(path.value())); }
    void write(EntryKind kind) { write(toString(kind)); }
    void write(UnsupportedReason reason) { write(toString(reason)); }
    void write(const FileTimestamp& time) {
        beginObject();
        field("nanoseconds", time.nanoseconds);
        field("seconds", std::int64_t{time.seconds});
        endObject();
    }
    // The fields of to_json(FileSystemEntry).
    void write(const FileSystemEntry& entry) {
        beginObject();
        field("allocatedBlocks", std::int64_t{entry.allocatedBlocks});
        field("creationTime", entry.creationTime);
        field("deviceID", entry.deviceID);
        field("hardLinkCount", entry.hardLinkCount);
        field("inode", entry.inode);
        field("isDataless", entry.isDataless);
        field("kind", entry.kind);
        field("modificationTime", entry.modificationTime.value());
        field("ownerGID", entry.ownerGID);
        field("ownerUID", entry.ownerUID);
        field("posixPermissions", std::uint16_t{entry.posixPermissions});
        field("relativePath", entry.relativePath);
        field("size", entry.size);
        field("symlinkTarget", entry.symlinkTarget);
        field("unsupportedReason", entry.unsupportedReason);
        endObject();
    }

    std::string& out_;
    bool first_ = true;
};

}  // namespace

void appendCompactJSON(std::string& out, const SyncAction& action) {
    CompactWriter w(out);
    w.beginObject();
    if (action.destinationEntry) w.field("destinationEntry", *action.destinationEntry);
    w.field("expectedBytes", std::int64_t{action.expectedBytes});
    w.field("reason", Json(action.reason));
    w.field("relativePath", action.relativePath);
    if (action.sourceEntry) w.field("sourceEntry", *action.sourceEntry);
    w.field("type", toString(action.type));
    w.endObject();
}

void to_json(Json& json, const SyncPlanSummary& summary) {
    json = Json::object();
    forEachSummaryField(summary, [&](const char* key, std::int64_t value) { json[key] = value; });
}

void from_json(const Json& json, SyncPlanSummary& summary) {
    forEachSummaryField(summary, [&](const char* key, std::int64_t& value) {
        const Json* found = json_fields::find(json, key);
        value = found ? asInteger<std::int64_t>(*found, key) : 0;
    });
}

void to_json(Json& json, const PlanNote& note) {
    json = Json{{"id", note.id}, {"title", note.title}, {"lines", note.lines}};
}

void from_json(const Json& json, PlanNote& note) {
    note.id = json.at("id").get<std::string>();
    note.title = json.at("title").get<std::string>();
    note.lines = json.at("lines").get<std::vector<std::string>>();
}

void to_json(Json& json, const FileSystemEntry& entry) {
    json = Json{{"relativePath", entry.relativePath},
                {"kind", toString(entry.kind)},
                {"size", entry.size},
                {"allocatedBlocks", std::int64_t{entry.allocatedBlocks}},
                {"modificationTime", entry.modificationTime},
                {"posixPermissions", std::uint16_t{entry.posixPermissions}},
                {"ownerUID", entry.ownerUID},
                {"ownerGID", entry.ownerGID},
                {"deviceID", entry.deviceID},
                {"inode", entry.inode},
                {"hardLinkCount", entry.hardLinkCount},
                {"isDataless", bool{entry.isDataless}}};
    putOptional(json, "creationTime", entry.creationTime);
    putOptional(json, "symlinkTarget", entry.symlinkTarget);
    if (entry.unsupportedReason) json["unsupportedReason"] = toString(*entry.unsupportedReason);
}

void from_json(const Json& json, FileSystemEntry& entry) {
    entry.relativePath = json.at("relativePath").get<RelativePath>();
    const auto kindText = json.at("kind").get<std::string>();
    const auto kind = parseEntryKind(kindText);
    if (!kind) throw DecodingError("Unknown item kind: " + kindText);
    entry.kind = *kind;
    entry.size = integerAt<std::int64_t>(json, "size");
    entry.allocatedBlocks =
        asInt64(require(json, "allocatedBlocks"), "allocatedBlocks", 0, FileSystemEntry::kMaxAllocatedBlocks);
    entry.modificationTime = json.at("modificationTime").get<FileTimestamp>();
    entry.creationTime = getOptional<FileTimestamp>(json, "creationTime");
    entry.posixPermissions =
        static_cast<std::uint16_t>(asInt64(require(json, "posixPermissions"), "posixPermissions", 0, 07777));
    entry.ownerUID = integerAt<std::uint32_t>(json, "ownerUID");
    entry.ownerGID = integerAt<std::uint32_t>(json, "ownerGID");
    entry.symlinkTarget = getOptional<std::string>(json, "symlinkTarget");
    entry.unsupportedReason.reset();
    if (const auto raw = getOptional<std::string>(json, "unsupportedReason")) {
        entry.unsupportedReason = parseUnsupportedReason(*raw);
        if (!entry.unsupportedReason) throw DecodingError("Unknown unsupported reason: " + *raw);
    }
    entry.deviceID = integerAt<std::uint32_t>(json, "deviceID");
    // The one field whose values go beyond a signed 64-bit number.
    const Json& inode = require(json, "inode");
    if (!inode.is_number_unsigned()) throw DecodingError("“inode”: expected a whole number that is not negative.");
    entry.inode = inode.get<std::uint64_t>();
    // Counts beyond 16 bits, from other writers, are held at the largest one kept.
    entry.hardLinkCount = static_cast<std::uint16_t>(
        std::min<std::uint32_t>(integerAt<std::uint32_t>(json, "hardLinkCount"), FileSystemEntry::kMaxHardLinkCount));
    entry.isDataless = json.at("isDataless").get<bool>();
}

void to_json(Json& json, const SyncAction& action) {
    json = Json{{"type", toString(action.type)},
                {"relativePath", action.relativePath},
                {"reason", action.reason},
                {"expectedBytes", std::int64_t{action.expectedBytes}}};
    if (action.sourceEntry) json["sourceEntry"] = *action.sourceEntry;
    if (action.destinationEntry) json["destinationEntry"] = *action.destinationEntry;
}

void from_json(const Json& json, SyncAction& action) {
    const auto typeText = json.at("type").get<std::string>();
    const auto type = parseSyncActionType(typeText);
    if (!type) throw DecodingError("Unknown action type: " + typeText);
    action.type = *type;
    action.relativePath = json.at("relativePath").get<RelativePath>();
    action.reason = json.at("reason").get<SyncActionReason>();
    const auto entryAt = [&](const char* key) {
        auto entry = getOptional<FileSystemEntry>(json, key);
        return entry ? SharedEntry(std::move(*entry)) : SharedEntry();
    };
    action.sourceEntry = entryAt("sourceEntry");
    action.destinationEntry = entryAt("destinationEntry");
    action.expectedBytes = asInt64(require(json, "expectedBytes"), "expectedBytes", -SyncAction::kMaxExpectedBytes - 1,
                                   SyncAction::kMaxExpectedBytes);
}

void to_json(Json& json, const SyncPlan& plan) {
    json = Json{{"id", plan.id},
                {"profileID", plan.profileID},
                {"mode", plan.mode},
                {"createdAt", formatISO8601(plan.createdAt)},
                {"sourceRoot", plan.sourceRoot},
                {"destinationRoot", plan.destinationRoot},
                {"actions", plan.actions},
                {"summary", plan.summary},
                {"warnings", plan.warnings},
                {"isSameVolume", plan.isSameVolume},
                {"destinationFreeBytes", plan.destinationFreeBytes},
                {"archiveIsOnDestinationVolume", plan.archiveIsOnDestinationVolume},
                {"notes", plan.notes}};
    putOptional(json, "sourceVolume", plan.sourceVolume);
    putOptional(json, "destinationVolume", plan.destinationVolume);
    putOptional(json, "archiveRoot", plan.archiveRoot);
    putOptional(json, "sourceCloud", plan.sourceCloud);
    putOptional(json, "destinationCloud", plan.destinationCloud);
    putOptional(json, "stagingDirectory", plan.stagingDirectory);
    putOptional(json, "sourceFreeBytes", plan.sourceFreeBytes);
}

void from_json(const Json& json, SyncPlan& plan) {
    plan.id = json.at("id").get<Uuid>();
    plan.profileID = json.at("profileID").get<Uuid>();
    plan.mode = json.at("mode").get<SyncMode>();
    const auto created = parseISO8601(json.at("createdAt").get<std::string>());
    if (!created) throw DecodingError("Invalid date: " + json.at("createdAt").dump());
    plan.createdAt = *created;
    plan.sourceRoot = json.at("sourceRoot").get<std::string>();
    plan.destinationRoot = json.at("destinationRoot").get<std::string>();
    plan.actions = json.at("actions").get<std::vector<SyncAction>>();
    plan.summary = json.at("summary").get<SyncPlanSummary>();
    plan.warnings = json.at("warnings").get<std::vector<SyncWarning>>();
    plan.sourceVolume = getOptional<VolumeIdentity>(json, "sourceVolume");
    plan.destinationVolume = getOptional<VolumeIdentity>(json, "destinationVolume");
    plan.isSameVolume = json.at("isSameVolume").get<bool>();
    plan.destinationFreeBytes = integerAt<std::int64_t>(json, "destinationFreeBytes");
    plan.archiveRoot = getOptional<std::string>(json, "archiveRoot");
    plan.archiveIsOnDestinationVolume = json.at("archiveIsOnDestinationVolume").get<bool>();
    plan.sourceCloud = getOptional<CloudFolderInfo>(json, "sourceCloud");
    plan.destinationCloud = getOptional<CloudFolderInfo>(json, "destinationCloud");
    plan.stagingDirectory = getOptional<std::string>(json, "stagingDirectory");
    if (const Json* free = json_fields::find(json, "sourceFreeBytes")) {
        plan.sourceFreeBytes = asInteger<std::int64_t>(*free, "sourceFreeBytes");
    } else {
        plan.sourceFreeBytes.reset();
    }
    plan.notes = json.contains("notes") ? json.at("notes").get<std::vector<PlanNote>>() : std::vector<PlanNote>{};
}

}  // namespace varnel
