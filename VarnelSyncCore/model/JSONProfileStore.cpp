#include "model/JSONProfileStore.hpp"

#include "common/Localization.hpp"
#include "model/JSONFields.hpp"
#include "model/StoredFile.hpp"
#include "scan/POSIXFileError.hpp"
#include "transfer/SyncError.hpp"

#include <nlohmann/json.hpp>

#include <optional>

namespace varnel {

std::string encodeProfileDocument(const ProfileDocument& document) {
    // nlohmann's default object is a std::map, so keys come out sorted.
    const nlohmann::json json{{"version", document.version}, {"profiles", document.profiles}};
    // Folder names on Linux need not be UTF-8; a display path that is not is shown with
    // U+FFFD rather than failing the save. The bookmark keeps the exact bytes.
    return json.dump(2, ' ', false, nlohmann::json::error_handler_t::replace);
}

ProfileDocument decodeProfileDocument(std::string_view text, const Clock& clock) {
    nlohmann::json json;
    try {
        json = nlohmann::json::parse(text);
    } catch (const nlohmann::json::exception& error) {
        throw DecodingError(json_fields::withoutLibraryPrefix(error.what()));
    }
    json_fields::requireObject(json, "profiles document");
    ProfileDocument document;
    document.version = json_fields::asInteger<int>(json_fields::require(json, "version"), "version");
    // A different version was written by another release of the program; reading it
    // with this one's rules could silently drop what it added.
    if (document.version != ProfileDocument::currentVersion) {
        throw DecodingError("Unsupported profiles file version " + std::to_string(document.version) + ".");
    }
    const auto& profiles = json_fields::require(json, "profiles");
    if (!profiles.is_array()) throw DecodingError("“profiles”: expected a list.");
    for (std::size_t index = 0; index < profiles.size(); ++index) {
        try {
            document.profiles.push_back(decodeSyncProfile(profiles[index], clock));
        } catch (const DecodingError& error) {
            throw DecodingError("Profile " + std::to_string(index + 1) + ": " + error.what());
        }
    }
    return document;
}

JSONProfileStore::JSONProfileStore(std::filesystem::path fileURL, const Clock& clock)
    : fileURL_(std::move(fileURL)), clock_(clock) {}

std::vector<SyncProfile> JSONProfileStore::load() {
    std::string problem;
    try {
        const auto contents = readStoredFile(fileURL_);
        if (!contents) return {};
        return decodeProfileDocument(*contents, clock_).profiles;
    } catch (const StoredFileError& error) {
        problem = systemErrorText(error.errnoValue());
    } catch (const DecodingError& error) {
        problem = error.what();
    }
    // Never deleted, never left where the next save would overwrite it.
    std::filesystem::path movedTo;
    try {
        movedTo = moveStoredFileAside(fileURL_, clock_.now());
    } catch (const StoredFileError& error) {
        throw SyncError(SyncError::ProfileStoreFailure{trFormat(
            "The saved profiles in “{}” could not be read ({}). {}", fileURL_.string(), problem, error.what())});
    }
    throw SyncError(SyncError::ProfileStoreFailure{trFormat(
        "The saved profiles could not be read and were moved to {} ({}).", movedTo.filename().string(), problem)});
}

void JSONProfileStore::save(const std::vector<SyncProfile>& profiles) {
    try {
        const ProfileDocument document{ProfileDocument::currentVersion, profiles};
        writeStoredFileAtomically(fileURL_, encodeProfileDocument(document));
    } catch (const StoredFileError& error) {
        throw SyncError(SyncError::ProfileStoreFailure{error.what()});
    }
}

}  // namespace varnel
