#pragma once

#include <nlohmann/json_fwd.hpp>

#include <optional>
#include <string>
#include <string_view>

namespace varnel {

// The cloud-synchronised folder that holds an endpoint, if any.
struct CloudFolderInfo {
    enum class Kind { iCloudDrive, fileProvider, onlineOnlyItems };

    Kind kind = Kind::fileProvider;
    std::string displayName;  // as the system's file browser shows the cloud folder
    std::optional<std::string> domainID;
    std::optional<std::string> rootPath;

    friend bool operator==(const CloudFolderInfo&, const CloudFolderInfo&) = default;
};

std::string_view toString(CloudFolderInfo::Kind kind);
std::optional<CloudFolderInfo::Kind> parseCloudFolderKind(std::string_view raw);

// Keys "kind", "displayName", "domainID", "rootPath"; optionals only when present.
void to_json(nlohmann::json& json, const CloudFolderInfo& info);
void from_json(const nlohmann::json& json, CloudFolderInfo& info);

}  // namespace varnel
