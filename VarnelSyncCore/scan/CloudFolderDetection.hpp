#pragma once

#include "scan/CloudFolderInfo.hpp"
#include "scan/FileSystemProviding.hpp"

#include <optional>
#include <string>
#include <string_view>

namespace varnel {

// The attribute that names the file-provider domain holding an item. Linux lets
// ordinary files carry arbitrary attributes only in the "user." namespace, so there the
// same name lives under that prefix.
#if defined(__APPLE__)
inline constexpr const char* kFileProviderDomainAttribute = "com.apple.file-provider-domain-id";
#else
inline constexpr const char* kFileProviderDomainAttribute = "user.com.apple.file-provider-domain-id";
#endif

// Domain identifiers of the iCloud kind begin with this.
inline constexpr std::string_view kICloudDomainPrefix = "com.apple.CloudDocs.";

// Finds the cloud folder that holds a folder, by where the folder lies below a home
// folder. Two places are known:
// - "<home>/Library/Mobile Documents" and everything below it: iCloud Drive;
// - "<home>/Library/CloudStorage/<domain folder>" and below: a file-provider domain,
//   shown under its folder's name.
// The domain's identifier is the folder's kFileProviderDomainAttribute, else that of the
// cloud folder's root; without either the cloud folder does not identify itself
// (`domainID` absent). An identifier with kICloudDomainPrefix makes the kind iCloud
// Drive wherever it is found. Components are compared exactly and case-sensitively.
// Folders anywhere else belong to no cloud folder.
class CloudFolderDetection {
public:
    CloudFolderDetection(FileSystemProviding& fileSystem, std::string homeFolder)
        : fileSystem_(fileSystem), homeFolder_(std::move(homeFolder)) {}

    // `folder` should be canonical (links resolved), as validation provides it. Reads
    // at most two attributes; a failure to read one counts as not having it.
    std::optional<CloudFolderInfo> detect(const std::string& folder) const;

    const std::string& homeFolder() const { return homeFolder_; }

    // $HOME, else the home of the effective user in the password database, else "" (and
    // then no folder is in a cloud folder).
    static std::string currentUserHomeFolder();

private:
    std::optional<std::string> domainAttribute(const std::string& folder) const;

    FileSystemProviding& fileSystem_;
    std::string homeFolder_;
};

// The name a domain is shown under when only its identifier is known (a profile records
// just the identifier): "iCloud Drive" for the iCloud kind, else the identifier itself.
std::string cloudFolderDisplayName(std::string_view domainID);

}  // namespace varnel
