#include "scan/VolumeIdentity.hpp"

#include <gtest/gtest.h>

#include <ostream>
#include <string>

namespace varnel {

// Readable failures: the case and its sentence.
void PrintTo(const MatchResult& result, std::ostream* out) {
    *out << (result.isIdentical()  ? "identical"
             : result.isMismatch() ? "mismatch: "
                                   : "unverifiable: ")
         << result.reason().value_or("");
}

}  // namespace varnel

namespace varnel::testing {

namespace {

constexpr std::int64_t GB = 1'000'000'000;

VolumeIdentity volume(std::optional<std::string> uuid, std::optional<std::string> name,
                      std::optional<std::int64_t> capacity, std::optional<std::string> mountPoint = std::nullopt) {
    VolumeIdentity identity;
    identity.volumeUUID = std::move(uuid);
    identity.volumeName = std::move(name);
    identity.totalCapacity = capacity;
    identity.mountPointPath = std::move(mountPoint);
    return identity;
}

const std::string kNoUUID =
    "This volume does not publish a UUID, so its identity could not be confirmed. Verify the drive is the one you "
    "intend.";

TEST(VolumeIdentityMatchTest, UUIDsThenNamesAndCapacitiesThenTheCloudFolderDecide) {
    const auto withDomain = [](VolumeIdentity identity, std::optional<std::string> domain) {
        identity.fileProviderDomainID = std::move(domain);
        return identity;
    };
    const auto same = volume("AAAA", "Macintosh HD", 1000 * GB);
    const auto noUUID = volume(std::nullopt, "Disk", 1000 * GB);
    struct Case {
        const char* what;
        VolumeIdentity expected;
        VolumeIdentity found;
        MatchResult result;
    };
    const Case cases[] = {
        // Different UUIDs are a mismatch naming each disk.
        {"names and a mount point", volume("AAAA", "Backup", 2000 * GB),
         volume("BBBB", "Other", 2000 * GB, "/media/u/Backup"),
         MatchResult::mismatch(
             "The volume mounted at /media/u/Backup is not the one this profile was configured with. Expected volume "
             "“Backup”, found “Other”.")},
        {"no names: the UUIDs stand in", volume("AAAA", std::nullopt, std::nullopt, "/mnt/a"),
         volume("BBBB", std::nullopt, std::nullopt, "/mnt/a"),
         MatchResult::mismatch(
             "The volume mounted at /mnt/a is not the one this profile was configured with. Expected volume UUID AAAA, "
             "found UUID BBBB.")},
        {"only the recorded mount point is known", volume("AAAA", "Backup", std::nullopt, "/mnt/rec"),
         volume("BBBB", std::nullopt, std::nullopt),
         MatchResult::mismatch(
             "The volume mounted at /mnt/rec is not the one this profile was configured with. Expected volume “Backup”, "
             "found UUID BBBB.")},
        {"no mount point at all", volume("AAAA", "Backup", std::nullopt), volume("BBBB", "Backup", std::nullopt),
         MatchResult::mismatch(
             "The volume mounted at this location is not the one this profile was configured with. Expected volume "
             "“Backup”, found “Backup”.")},
        {"equal UUIDs settle it whatever the names and capacities", volume("AAAA", "Backup", 2000 * GB),
         volume("AAAA", "Renamed", 500 * GB), MatchResult::identical()},
        // Without UUIDs, names and then capacities decide.
        {"names differ", volume(std::nullopt, "Backup", 1000 * GB), volume("CCCC", "Photos", 1000 * GB),
         MatchResult::mismatch("Expected volume “Backup” but found “Photos” at this mount point.")},
        {"1000 vs 950 GB is within the tolerance", volume(std::nullopt, "Backup", 1000 * GB),
         volume(std::nullopt, "Backup", 950 * GB), MatchResult::unverifiable(kNoUUID)},
        {"exactly 0.9 is still the same disk", volume(std::nullopt, std::nullopt, 1000 * GB),
         volume(std::nullopt, std::nullopt, 900 * GB), MatchResult::unverifiable(kNoUUID)},
        {"1000 vs 880 GB is another disk, found size first", volume(std::nullopt, "Backup", 1000 * GB),
         volume(std::nullopt, "Backup", 880 * GB),
         MatchResult::mismatch(
             "The volume at this mount point reports a very different capacity than expected (880 GB vs 1 TB).")},
        {"a grown disk is as wrong as a shrunk one", volume(std::nullopt, std::nullopt, 500 * GB),
         volume("DDDD", std::nullopt, 2000 * GB),
         MatchResult::mismatch(
             "The volume at this mount point reports a very different capacity than expected (2 TB vs 500 GB).")},
        {"a zero capacity against a real one", volume(std::nullopt, std::nullopt, 0),
         volume(std::nullopt, std::nullopt, 1000),
         MatchResult::mismatch(
             "The volume at this mount point reports a very different capacity than expected (1 KB vs 0 bytes).")},
        {"missing properties skip their checks", volume(std::nullopt, "Backup", std::nullopt),
         volume(std::nullopt, std::nullopt, 5 * GB), MatchResult::unverifiable(kNoUUID)},
        {"a UUID on one side only is no UUID check", volume("AAAA", "Backup", 1000 * GB),
         volume(std::nullopt, "Backup", 1000 * GB), MatchResult::unverifiable(kNoUUID)},
        // The cloud folder a folder belongs to.
        {"same UUID, same domain", withDomain(same, "com.example.drive/acct1"),
         withDomain(same, "com.example.drive/acct1"), MatchResult::identical()},
        {"same UUID, the cloud folder no longer identifies itself", withDomain(same, "com.example.drive/acct1"), same,
         MatchResult::unverifiable(
             "This folder was in the cloud folder “com.example.drive/acct1”, which no longer identifies itself. Check "
             "that its app is installed and signed in to the same account.")},
        {"the iCloud kind is shown as iCloud Drive", withDomain(same, "com.apple.CloudDocs.iCloudDriveFileProvider"),
         same,
         MatchResult::unverifiable(
             "This folder was in the cloud folder “iCloud Drive”, which no longer identifies itself. Check that its "
             "app is installed and signed in to the same account.")},
        {"same UUID, another account: found name first", withDomain(same, "com.example.drive/acct1"),
         withDomain(same, "com.example.drive/acct2"),
         MatchResult::mismatch(
             "This folder now belongs to the cloud folder “com.example.drive/acct2”, not “com.example.drive/acct1”, "
             "which this profile was configured with. It may be signed in to a different account.")},
        {"no recorded domain: nothing to compare", same, withDomain(same, "com.example.drive/acct2"),
         MatchResult::identical()},
        {"without UUIDs a domain mismatch is still reported", withDomain(noUUID, "com.example.drive/acct1"),
         withDomain(noUUID, "com.apple.CloudDocs.x"),
         MatchResult::mismatch(
             "This folder now belongs to the cloud folder “iCloud Drive”, not “com.example.drive/acct1”, which this "
             "profile was configured with. It may be signed in to a different account.")},
        {"without UUIDs an unidentified cloud folder gives the UUID sentence", withDomain(noUUID, "com.example.d/a"),
         noUUID, MatchResult::unverifiable(kNoUUID)},
        {"a different disk is reported before the cloud folder", withDomain(same, "com.example.d/a"),
         withDomain(volume("BBBB", "Other", 1000 * GB), "com.example.d/b"),
         MatchResult::mismatch("The volume mounted at this location is not the one this profile was configured "
                               "with. Expected volume “Macintosh HD”, found “Other”.")},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        EXPECT_EQ(VolumeIdentity::match(c.expected, c.found), c.result);
    }
}

}  // namespace

}  // namespace varnel::testing
