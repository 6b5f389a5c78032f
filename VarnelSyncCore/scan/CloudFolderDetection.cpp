#include "scan/CloudFolderDetection.hpp"

#include "common/Localization.hpp"
#include "scan/POSIXFileError.hpp"
#include "scan/PathComponents.hpp"

#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <vector>

namespace varnel {

namespace {

constexpr std::string_view kMobileDocuments = "Library/Mobile Documents";
constexpr std::string_view kCloudStorage = "Library/CloudStorage";

std::string joinPath(const std::vector<std::string>& components) {
    std::string path;
    for (const auto& component : components) path += "/" + component;
    return path.empty() ? "/" : path;
}

std::string iCloudDriveName() { return tr("iCloud Drive"); }

}  // namespace

std::string cloudFolderDisplayName(std::string_view domainID) {
    if (domainID.starts_with(kICloudDomainPrefix)) return iCloudDriveName();
    return std::string(domainID);
}

std::optional<std::string> CloudFolderDetection::domainAttribute(const std::string& folder) const {
    try {
        const EndpointRoot root = fileSystem_.openRoot(folder);
        auto value = fileSystem_.extendedAttribute(root, RelativePath(), kFileProviderDomainAttribute);
        if (value && value->empty()) return std::nullopt;
        return value;
    } catch (const POSIXFileError&) {
        // An attribute that cannot be read identifies nothing; the caller reports a
        // cloud folder that does not identify itself.
        return std::nullopt;
    }
}

std::optional<CloudFolderInfo> CloudFolderDetection::detect(const std::string& folder) const {
    if (homeFolder_.empty()) return std::nullopt;
    std::string home = homeFolder_;
    try {
        home = fileSystem_.canonicalPath(homeFolder_);
    } catch (const POSIXFileError&) {
        // A home that cannot be resolved is compared as written.
    }

    auto base = standardizedComponents(home);
    const auto folderComponents = standardizedComponents(folder);
    const auto startsWith = [&](const std::vector<std::string>& prefix) {
        return folderComponents.size() >= prefix.size() &&
               std::equal(prefix.begin(), prefix.end(), folderComponents.begin());
    };

    auto mobileDocuments = base;
    for (auto& part : standardizedComponents(kMobileDocuments)) mobileDocuments.push_back(std::move(part));
    auto cloudStorage = base;
    for (auto& part : standardizedComponents(kCloudStorage)) cloudStorage.push_back(std::move(part));

    std::vector<std::string> rootComponents;
    CloudFolderInfo info;
    if (startsWith(mobileDocuments)) {
        rootComponents = mobileDocuments;
        info.kind = CloudFolderInfo::Kind::iCloudDrive;
        info.displayName = iCloudDriveName();
    } else if (startsWith(cloudStorage) && folderComponents.size() > cloudStorage.size()) {
        rootComponents = cloudStorage;
        rootComponents.push_back(folderComponents[cloudStorage.size()]);
        info.kind = CloudFolderInfo::Kind::fileProvider;
        info.displayName = rootComponents.back();
    } else {
        return std::nullopt;
    }

    const std::string rootPath = joinPath(rootComponents);
    info.rootPath = rootPath;
    info.domainID = domainAttribute(folder);
    if (!info.domainID && rootPath != joinPath(folderComponents)) info.domainID = domainAttribute(rootPath);
    if (info.domainID && info.domainID->starts_with(kICloudDomainPrefix)) {
        info.kind = CloudFolderInfo::Kind::iCloudDrive;
        info.displayName = iCloudDriveName();
    }
    return info;
}

std::string CloudFolderDetection::currentUserHomeFolder() {
    if (const char* home = std::getenv("HOME"); home != nullptr && *home != '\0') return home;
    std::vector<char> buffer(16384);
    passwd entry{};
    passwd* found = nullptr;
    if (::getpwuid_r(::geteuid(), &entry, buffer.data(), buffer.size(), &found) == 0 && found != nullptr &&
        found->pw_dir != nullptr) {
        return found->pw_dir;
    }
    return "";
}

}  // namespace varnel
