#include "transfer/SyncRunResult.hpp"

#include "common/DecodingError.hpp"
#include "model/JSONFields.hpp"

namespace varnel {

namespace {

using Ordered = nlohmann::ordered_json;

// Records with an ordinary to_json keep their own key order when re-read into an ordered document.
template <typename T>
Ordered ordered(const T& value) {
    return Ordered::parse(nlohmann::json(value).dump());
}

Date dateFrom(const nlohmann::json& json, const char* key) {
    const auto text = json.at(key).get<std::string>();
    const auto date = parseISO8601(text);
    if (!date) throw DecodingError(std::string("Invalid date for ") + key + ": " + text);
    return *date;
}

}  // namespace

Ordered toJSON(const ActionResult& result) {
    Ordered json;
    json["relativePath"] = result.relativePath.value();
    json["type"] = toString(result.type);
    json["succeeded"] = result.succeeded;
    json["bytesWritten"] = result.bytesWritten;
    json["durationSeconds"] = result.durationSeconds;
    if (result.errorCode) json["errorCode"] = *result.errorCode;
    if (result.errorMessage) json["errorMessage"] = *result.errorMessage;
    return json;
}

Ordered toJSON(const RecordedError& error) {
    Ordered json;
    json["id"] = error.id.string();
    if (error.relativePath) json["relativePath"] = error.relativePath->value();
    json["code"] = error.code;
    json["message"] = error.message;
    return json;
}

Ordered toJSON(const SyncRunResult& r) {
    Ordered json;
    json["id"] = r.id.string();
    json["profileID"] = r.profileID.string();
    if (r.planID) json["planID"] = r.planID->string();
    json["mode"] = toString(r.mode);
    json["outcome"] = toString(r.outcome);
    json["startedAt"] = formatISO8601(r.startedAt);
    json["finishedAt"] = formatISO8601(r.finishedAt);
    json["durationSeconds"] = r.durationSeconds;
    json["filesCopied"] = r.filesCopied;
    json["filesUpdated"] = r.filesUpdated;
    json["filesSkipped"] = r.filesSkipped;
    json["filesFailed"] = r.filesFailed;
    json["directoriesCreated"] = r.directoriesCreated;
    json["symlinksWritten"] = r.symlinksWritten;
    json["itemsArchived"] = r.itemsArchived;
    json["bytesTransferred"] = r.bytesTransferred;
    json["bytesArchived"] = r.bytesArchived;
    json["averageBytesPerSecond"] = r.averageBytesPerSecond;
    json["peakBytesPerSecond"] = r.peakBytesPerSecond;
    json["verification"] = toString(r.verification);
    json["filesVerified"] = r.filesVerified;
    json["verificationFailures"] = r.verificationFailures;
    json["durability"] = ordered(r.durability);
    json["errors"] = Ordered::array();
    for (const auto& error : r.errors) json["errors"].push_back(toJSON(error));
    json["warnings"] = Ordered::array();
    for (const auto& warning : r.warnings) json["warnings"].push_back(ordered(warning));
    if (r.logFileName) json["logFileName"] = *r.logFileName;
    return json;
}

SyncRunResult runResultFromJSON(const nlohmann::json& json) {
    SyncRunResult r;
    r.id = json.at("id").get<Uuid>();
    r.profileID = json.at("profileID").get<Uuid>();
    if (json.contains("planID")) r.planID = json.at("planID").get<Uuid>();
    r.mode = json.at("mode").get<SyncMode>();
    r.outcome = json.at("outcome").get<SyncRunOutcome>();
    r.startedAt = dateFrom(json, "startedAt");
    r.finishedAt = dateFrom(json, "finishedAt");
    using json_fields::doubleAt;
    using json_fields::integerAt;
    r.durationSeconds = doubleAt(json, "durationSeconds");
    r.filesCopied = integerAt<int>(json, "filesCopied");
    r.filesUpdated = integerAt<int>(json, "filesUpdated");
    r.filesSkipped = integerAt<int>(json, "filesSkipped");
    r.filesFailed = integerAt<int>(json, "filesFailed");
    r.directoriesCreated = integerAt<int>(json, "directoriesCreated");
    r.symlinksWritten = integerAt<int>(json, "symlinksWritten");
    r.itemsArchived = integerAt<int>(json, "itemsArchived");
    r.bytesTransferred = integerAt<std::uint64_t>(json, "bytesTransferred");
    r.bytesArchived = integerAt<std::uint64_t>(json, "bytesArchived");
    r.averageBytesPerSecond = doubleAt(json, "averageBytesPerSecond");
    r.peakBytesPerSecond = doubleAt(json, "peakBytesPerSecond");
    r.verification = json.at("verification").get<VerificationMode>();
    r.filesVerified = integerAt<int>(json, "filesVerified");
    r.verificationFailures = integerAt<int>(json, "verificationFailures");
    r.durability = json.at("durability").get<DurabilitySummary>();
    for (const auto& item : json.at("errors")) {
        RecordedError error;
        error.id = item.at("id").get<Uuid>();
        if (item.contains("relativePath")) error.relativePath = item.at("relativePath").get<RelativePath>();
        error.code = item.at("code").get<std::string>();
        error.message = item.at("message").get<std::string>();
        r.errors.push_back(std::move(error));
    }
    r.warnings = json.at("warnings").get<std::vector<SyncWarning>>();
    if (json.contains("logFileName")) r.logFileName = json.at("logFileName").get<std::string>();
    return r;
}

}  // namespace varnel
