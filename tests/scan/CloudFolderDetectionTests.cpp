#include "scan/CloudFolderDetection.hpp"

#include "scan/RealFileSystem.hpp"
#include "support/TemporaryDirectory.hpp"

#include <gtest/gtest.h>

#include <sys/xattr.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

namespace varnel::testing {

namespace {

using Kind = CloudFolderInfo::Kind;

// A home folder in a temporary directory with the two cloud locations filled in.
class CloudFolderDetectionTest : public ::testing::Test {
protected:
    void SetUp() override {
        for (const char* folder :
             {"home/Library/Mobile Documents/com~apple~CloudDocs/Notes", "home/Library/CloudStorage/Dropbox/Work",
              "home/Library/CloudStorage/GoogleDrive-me/Shared", "home/Library/CloudStorage/Silent/Files",
              "home/Library/CloudStorage/AppleLike", "home/Library/cloudstorage/Dropbox", "home/Documents",
              "elsewhere/Library/CloudStorage/Dropbox"}) {
            std::filesystem::create_directories(temp_ / folder);
        }
        home_ = std::filesystem::canonical(temp_ / "home").string();
    }

    // Sets the domain attribute; false when this file system cannot hold it.
    bool setDomain(const std::string& relative, const std::string& domain) {
        const auto path = (temp_ / relative).string();
        if (::setxattr(path.c_str(), kFileProviderDomainAttribute, domain.data(), domain.size(), 0) == 0) return true;
        why_ = std::string("cannot set user attributes here: ") + std::strerror(errno);
        return false;
    }

    std::optional<CloudFolderInfo> detect(const std::string& relative, const std::string& home) {
        return CloudFolderDetection(fs_, home).detect(std::filesystem::canonical(temp_ / relative).string());
    }

    TemporaryDirectory temp_;
    RealFileSystem fs_;
    std::string home_;
    std::string why_;
};

TEST_F(CloudFolderDetectionTest, FindsTheTwoKnownLocationsAndNothingElse) {
    if (!setDomain("home/Library/CloudStorage/Dropbox", "com.getdropbox.dropbox.fileprovider/acct") ||
        !setDomain("home/Library/CloudStorage/GoogleDrive-me", "com.google.drivefs.fpext/root") ||
        !setDomain("home/Library/CloudStorage/GoogleDrive-me/Shared", "com.google.drivefs.fpext/shared") ||
        !setDomain("home/Library/CloudStorage/AppleLike", "com.apple.CloudDocs.provider")) {
        GTEST_SKIP() << why_;
    }
    const std::string storage = home_ + "/Library/CloudStorage";
    struct Case {
        const char* folder;
        std::optional<CloudFolderInfo> expected;
    };
    const Case cases[] = {
        {"home/Library/Mobile Documents/com~apple~CloudDocs/Notes",
         CloudFolderInfo{Kind::iCloudDrive, "iCloud Drive", std::nullopt, home_ + "/Library/Mobile Documents"}},
        {"home/Library/Mobile Documents",
         CloudFolderInfo{Kind::iCloudDrive, "iCloud Drive", std::nullopt, home_ + "/Library/Mobile Documents"}},
        // The domain folder's attribute identifies everything below it.
        {"home/Library/CloudStorage/Dropbox/Work",
         CloudFolderInfo{Kind::fileProvider, "Dropbox", "com.getdropbox.dropbox.fileprovider/acct",
                         storage + "/Dropbox"}},
        // A folder's own attribute comes first.
        {"home/Library/CloudStorage/GoogleDrive-me/Shared",
         CloudFolderInfo{Kind::fileProvider, "GoogleDrive-me", "com.google.drivefs.fpext/shared",
                         storage + "/GoogleDrive-me"}},
        // A domain that does not identify itself.
        {"home/Library/CloudStorage/Silent/Files",
         CloudFolderInfo{Kind::fileProvider, "Silent", std::nullopt, storage + "/Silent"}},
        // An iCloud identifier makes it iCloud Drive wherever it is.
        {"home/Library/CloudStorage/AppleLike",
         CloudFolderInfo{Kind::iCloudDrive, "iCloud Drive", "com.apple.CloudDocs.provider", storage + "/AppleLike"}},
        {"home/Library/CloudStorage", std::nullopt},          // the container itself is no domain
        {"home/Library/cloudstorage/Dropbox", std::nullopt},  // components compare case-sensitively
        {"home/Documents", std::nullopt},
        {"home", std::nullopt},
        {"elsewhere/Library/CloudStorage/Dropbox", std::nullopt},  // another user's layout is not ours
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.folder);
        EXPECT_EQ(detect(c.folder, home_), c.expected);
    }
}

TEST_F(CloudFolderDetectionTest, HomeReachedThroughALinkStillMatchesCanonicalFolders) {
    std::filesystem::create_directory_symlink(temp_ / "home", temp_ / "home-link");
    const auto found = detect("home/Library/CloudStorage/Silent/Files", (temp_ / "home-link").string());
    ASSERT_TRUE(found.has_value());
    EXPECT_EQ(found->displayName, "Silent");
    EXPECT_EQ(found->rootPath, home_ + "/Library/CloudStorage/Silent");
}

}  // namespace

}  // namespace varnel::testing
