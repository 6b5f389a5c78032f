#include "scan/CloudFolderInfo.hpp"

#include "common/DecodingError.hpp"

#include <nlohmann/json.hpp>

namespace varnel {

std::string_view toString(CloudFolderInfo::Kind kind) {
    switch (kind) {
        case CloudFolderInfo::Kind::iCloudDrive: return "iCloudDrive";
        case CloudFolderInfo::Kind::fileProvider: return "fileProvider";
        case CloudFolderInfo::Kind::onlineOnlyItems: return "onlineOnlyItems";
    }
    return "fileProvider";
}

std::optional<CloudFolderInfo::Kind> parseCloudFolderKind(std::string_view raw) {
    for (auto kind : {CloudFolderInfo::Kind::iCloudDrive, CloudFolderInfo::Kind::fileProvider,
                      CloudFolderInfo::Kind::onlineOnlyItems}) {
        if (toString(kind) == raw) return kind;
    }
    return std::nullopt;
}

void to_json(nlohmann::json& json, const CloudFolderInfo& info) {
    json = nlohmann::json{{"kind", toString(info.kind)}, {"displayName", info.displayName}};
    if (info.domainID) json["domainID"] = *info.domainID;
    if (info.rootPath) json["rootPath"] = *info.rootPath;
}

void from_json(const nlohmann::json& json, CloudFolderInfo& info) {
    const auto raw = json.at("kind").get<std::string>();
    const auto kind = parseCloudFolderKind(raw);
    if (!kind) throw DecodingError("Unknown cloud folder kind: " + raw);
    info.kind = *kind;
    info.displayName = json.at("displayName").get<std::string>();
    info.domainID.reset();
    info.rootPath.reset();
    if (json.contains("domainID") && !json["domainID"].is_null()) info.domainID = json["domainID"].get<std::string>();
    if (json.contains("rootPath") && !json["rootPath"].is_null()) info.rootPath = json["rootPath"].get<std::string>();
}

}  // namespace varnel
