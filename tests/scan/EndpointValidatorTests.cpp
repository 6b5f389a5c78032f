#include "scan/EndpointValidator.hpp"

#include "platform/POSIXFolderAccess.hpp"
#include "scan/RealFileSystem.hpp"
#include "support/FakeFileSystem.hpp"
#include "support/ChildProcess.hpp"
#include "support/MountSandbox.hpp"
#include "support/TemporaryDirectory.hpp"
#include "transfer/SyncError.hpp"

#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <set>
#include <variant>

namespace varnel::testing {

namespace {

using E = SyncError;
using Role = EndpointRole;

// Access decided by the test, for the fake file system.
struct FakeFolderAccess final : FolderAccessChecking {
    std::set<std::string> unreadable;
    std::set<std::string> unwritable;
    bool canRead(const std::string& folder) override { return !unreadable.contains(folder); }
    bool canWrite(const std::string& folder) override { return !unwritable.contains(folder); }
};

// What validation ended in: the error, or none.
std::optional<SyncError> failureOf(const std::function<ValidatedEndpoints()>& validate) {
    try {
        validate();
        return std::nullopt;
    } catch (const SyncError& error) {
        return error;
    }
}

std::string describe(const std::optional<SyncError>& error) { return error ? error->message() : "accepted"; }

VolumeInfo makeVolume(std::optional<std::string> uuid, std::string name, std::uint64_t device,
                      std::int64_t capacity = 2'000'000'000'000) {
    VolumeInfo info;
    info.identity.volumeUUID = std::move(uuid);
    info.identity.volumeName = std::move(name);
    info.identity.totalCapacity = capacity;
    info.deviceID = device;
    info.availableBytes = capacity / 2;
    return info;
}

// --- On the fake file system: order of the checks and the identity rules ---------------

class EndpointValidatorFakeTest : public ::testing::Test {
protected:
    EndpointValidator validator(FakeFileSystem& fs) {
        return EndpointValidator(fs, access_, CloudFolderDetection(fs, "/home/u"));
    }

    std::optional<SyncError> failure(FakeFileSystem& fs, const std::string& source, const std::string& destination,
                                     const EndpointExpectations& expected = {}) {
        return failureOf([&] { return validator(fs).validate(source, destination, expected); });
    }

    FakeFolderAccess access_;
};

TEST_F(EndpointValidatorFakeTest, ChecksRunInOrderAndTheFirstFailureIsReported) {
    FakeFileSystem fs;
    fs.addDirectory("/src");
    fs.addDirectory("/dst");
    fs.addDirectory("/locked");
    fs.addDirectory("/readonly");
    fs.addFile("/file.txt", "x");
    fs.addSymlink("/dangling", "/nowhere");
    fs.addSymlink("/to-src", "/src");
    fs.addSymlink("/to-file", "/file.txt");
    access_.unreadable = {"/locked"};
    access_.unwritable = {"/readonly", "/locked"};

    struct Case {
        std::string source;
        std::string destination;
        std::optional<SyncError> expected;
    };
    const std::vector<Case> cases = {
        {"/missing", "/also-missing", E::EndpointNotFound{Role::source, "/missing"}},
        {"/src", "/missing", E::EndpointNotFound{Role::destination, "/missing"}},
        {"/file.txt", "/missing", E::EndpointNotADirectory{Role::source, "/file.txt"}},
        {"/src", "/file.txt", E::EndpointNotADirectory{Role::destination, "/file.txt"}},
        {"/dangling", "/dst", E::EndpointNotFound{Role::source, "/dangling"}},
        {"/src", "/to-file", E::EndpointNotADirectory{Role::destination, "/to-file"}},
        // Both folders must exist before access is looked at.
        {"/locked", "/missing", E::EndpointNotFound{Role::destination, "/missing"}},
        {"/locked", "/readonly", E::SourceNotReadable{"/locked"}},
        {"/src", "/readonly", E::DestinationNotWritable{"/readonly"}},
        // Readable and writable, then compared after links are resolved.
        {"/to-src", "/src", E::SourceAndDestinationIdentical{"/src"}},
        {"/src", "/dst", std::nullopt},
        {"/to-src", "/dst", std::nullopt},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.source + " -> " + c.destination);
        const auto found = failure(fs, c.source, c.destination);
        EXPECT_EQ(found, c.expected) << describe(found);
    }

    // A folder that cannot even be examined for lack of permission is refused as such.
    fs.failNext("statx", EACCES, "/src");
    EXPECT_EQ(failure(fs, "/src", "/dst"), SyncError(E::SourceNotReadable{"/src"}));
    fs.failNext("statx", EACCES, "/dst");
    EXPECT_EQ(failure(fs, "/src", "/dst"), SyncError(E::DestinationNotWritable{"/dst"}));
}

TEST_F(EndpointValidatorFakeTest, SameVolumeWarnsOnlyInMirrorMode) {
    FakeFileSystem fs;
    fs.addDirectory("/data/a");
    fs.addDirectory("/data/b");
    fs.setVolume("/media/usb", makeVolume("U5B", "USB", 7));
    fs.addDirectory("/media/usb/b");

    const auto mirror = validator(fs).validate("/data/a", "/data/b", {SyncMode::mirror, {}, {}});
    EXPECT_TRUE(mirror.isSameVolume);
    ASSERT_EQ(mirror.warnings.size(), 1u);
    EXPECT_EQ(mirror.warnings[0].category, SyncWarning::Category::other);
    EXPECT_EQ(mirror.warnings[0].message,
              "The source and destination are on the same volume. Mirror mode will move destination-only items to "
              "the archive folder on that same volume.");

    EXPECT_TRUE(validator(fs).validate("/data/a", "/data/b", {SyncMode::update, {}, {}}).warnings.empty());

    const auto apart = validator(fs).validate("/data/a", "/media/usb/b", {SyncMode::mirror, {}, {}});
    EXPECT_FALSE(apart.isSameVolume);
    EXPECT_TRUE(apart.warnings.empty());
    EXPECT_EQ(apart.destinationVolume.identity.volumeName, "USB");
    EXPECT_EQ(apart.canonicalDestinationURL, "/media/usb/b");
}

TEST_F(EndpointValidatorFakeTest, RecordedVolumesAreMatchedSourceFirst) {
    VolumeInfo backup = makeVolume("B0B0", "Backup", 2);
    const auto recordedBackup = [&] {
        VolumeIdentity identity = backup.identity;
        identity.mountPointPath = "/Volumes/Backup";
        return identity;
    }();
    VolumeInfo noUUID = makeVolume(std::nullopt, "Stick", 3);
    VolumeIdentity recordedStick = noUUID.identity;
    recordedStick.mountPointPath = "/Volumes/Stick";

    // The drive as recorded.
    {
        FakeFileSystem fs;
        fs.setVolume("/Volumes/Backup", backup);
        fs.addDirectory("/Volumes/Backup/Data");
        fs.addDirectory("/src");
        const auto result =
            validator(fs).validate("/src", "/Volumes/Backup/Data", {SyncMode::mirror, {}, recordedBackup});
        EXPECT_TRUE(result.warnings.empty());
    }
    // Unplugged: the folder is now a plain folder on the root volume.
    {
        FakeFileSystem fs;
        fs.addDirectory("/Volumes/Backup/Data");
        fs.addDirectory("/src");
        EXPECT_EQ(failure(fs, "/src", "/Volumes/Backup/Data", {SyncMode::mirror, {}, recordedBackup}),
                  SyncError(E::VolumeNotMounted{Role::destination, "Backup"}));
        // The source is matched first.
        VolumeIdentity recordedSource = recordedBackup;
        recordedSource.volumeName.reset();
        EXPECT_EQ(failure(fs, "/Volumes/Backup/Data", "/src", {SyncMode::update, recordedSource, recordedBackup}),
                  SyncError(E::VolumeNotMounted{Role::source, std::nullopt}));
    }
    // Another drive at the same mount point.
    {
        FakeFileSystem fs;
        fs.setVolume("/Volumes/Backup", makeVolume("0DD0", "Other", 4));
        fs.addDirectory("/Volumes/Backup/Data");
        fs.addDirectory("/src");
        EXPECT_EQ(failure(fs, "/src", "/Volumes/Backup/Data", {SyncMode::update, {}, recordedBackup}),
                  SyncError(E::VolumeIdentityMismatch{
                      Role::destination,
                      "The volume mounted at /Volumes/Backup is not the one this profile was configured with. "
                      "Expected volume “Backup”, found “Other”."}));
    }
    // A volume without a UUID can only be accepted with a warning, on either side.
    {
        FakeFileSystem fs;
        fs.setVolume("/Volumes/Stick", noUUID);
        fs.addDirectory("/Volumes/Stick/In");
        fs.addDirectory("/Volumes/Stick/Out");
        const auto result = validator(fs).validate("/Volumes/Stick/In", "/Volumes/Stick/Out",
                                                   {SyncMode::update, recordedStick, recordedStick});
        ASSERT_EQ(result.warnings.size(), 2u);
        const std::string reason =
            "This volume does not publish a UUID, so its identity could not be confirmed. Verify the drive is the one "
            "you intend.";
        EXPECT_EQ(result.warnings[0].category, SyncWarning::Category::volumeIdentityUnverifiable);
        EXPECT_EQ(result.warnings[0].message, "Source volume: " + reason);
        EXPECT_EQ(result.warnings[1].category, SyncWarning::Category::volumeIdentityUnverifiable);
        EXPECT_EQ(result.warnings[1].message, "Destination volume: " + reason);
    }
}

TEST_F(EndpointValidatorFakeTest, TheCloudFolderFoundNowTakesPartInTheMatch) {
    FakeFileSystem fs;
    fs.addDirectory("/home/u/Library/CloudStorage/Drive/Work");
    fs.node("/home/u/Library/CloudStorage/Drive").extendedAttributes[kFileProviderDomainAttribute] = "com.example/two";
    fs.addDirectory("/src");
    VolumeIdentity recorded = fs.volumeInfo("/").identity;
    recorded.fileProviderDomainID = "com.example/one";

    EXPECT_EQ(validator(fs).identityOf("/home/u/Library/CloudStorage/Drive/Work").fileProviderDomainID,
              "com.example/two");
    EXPECT_EQ(failure(fs, "/src", "/home/u/Library/CloudStorage/Drive/Work", {SyncMode::update, {}, recorded}),
              SyncError(E::VolumeIdentityMismatch{
                  Role::destination,
                  "This folder now belongs to the cloud folder “com.example/two”, not “com.example/one”, which this "
                  "profile was configured with. It may be signed in to a different account."}));

    const auto result = validator(fs).validate("/home/u/Library/CloudStorage/Drive/Work", "/src");
    ASSERT_TRUE(result.sourceCloud.has_value());
    EXPECT_EQ(result.sourceCloud->displayName, "Drive");
    EXPECT_EQ(result.sourceVolume.identity.fileProviderDomainID, "com.example/two");
    EXPECT_EQ(result.destinationCloud, std::nullopt);
}

TEST(RecordedVolumeIsNotMountedTest, Rule) {
    const auto identity = [](std::optional<std::string> uuid, std::optional<std::string> mountPoint) {
        VolumeIdentity value;
        value.volumeUUID = std::move(uuid);
        value.mountPointPath = std::move(mountPoint);
        return value;
    };
    struct Case {
        const char* what;
        VolumeIdentity recorded;
        VolumeIdentity found;
        bool notMounted;
    };
    const Case cases[] = {
        {"folder now on the root file system", identity("A", "/mnt/usb"), identity("R", "/"), true},
        {"root file system without a UUID", identity("A", "/mnt/usb"), identity(std::nullopt, "/"), true},
        {"found volume's mount point unknown", identity("A", "/mnt/usb"), identity("R", std::nullopt), true},
        {"a network share that publishes no UUID", identity(std::nullopt, "/mnt/nas"), identity("R", "/"), true},
        {"another volume at the recorded mount point", identity("A", "/mnt/usb"), identity("B", "/mnt/usb"), false},
        {"the same volume mounted elsewhere", identity("A", "/mnt/usb"), identity("A", "/media/usb"), false},
        {"the recorded volume, where it was", identity("A", "/mnt/usb"), identity("A", "/mnt/usb"), false},
        {"no recorded mount point: only matching can tell", identity("A", std::nullopt), identity("B", "/"), false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        EXPECT_EQ(EndpointValidator::recordedVolumeIsNotMounted(c.recorded, c.found), c.notMounted);
    }
}

// --- On real folders -------------------------------------------------------------------

class EndpointValidatorRealTest : public ::testing::Test {
protected:
    void SetUp() override {
        // Reachable by the unprivileged user of the permission tests.
        std::filesystem::permissions(temp_.path(), std::filesystem::perms(0755));
        root_ = std::filesystem::canonical(temp_.path()).string();
    }

    std::string path(const std::string& relative) const { return root_ + "/" + relative; }

    EndpointValidator validator() { return EndpointValidator(fs_, access_, CloudFolderDetection(fs_, path("home"))); }

    std::optional<SyncError> failure(const std::string& source, const std::string& destination,
                                     const EndpointExpectations& expected = {}) {
        return failureOf([&] { return validator().validate(source, destination, expected); });
    }

    TemporaryDirectory temp_;
    std::string root_;
    RealFileSystem fs_;
    POSIXFolderAccess access_;
};

TEST_F(EndpointValidatorRealTest, OverlapIsJudgedOnCanonicalComponents) {
    for (const char* folder : {"Data/Photos", "Data2", "data"}) std::filesystem::create_directories(path(folder));
    temp_.writeFile("file.txt", "x");
    std::filesystem::create_directory_symlink(path("Data"), path("link-to-Data"));
    std::filesystem::create_directory_symlink(path("Data/Photos"), path("Data2/photos-link"));

    struct Case {
        std::string source;
        std::string destination;
        std::optional<SyncError> expected;
    };
    const std::vector<Case> cases = {
        {"Data", "Data/Photos", E::DestinationInsideSource{path("Data"), path("Data/Photos")}},
        {"Data/Photos", "Data", E::SourceInsideDestination{path("Data/Photos"), path("Data")}},
        {"Data", "Data2", std::nullopt},
        {"Data2", "Data", std::nullopt},
        {"Data", "data", std::nullopt},  // names differ in case only: two folders here
        {"Data", "link-to-Data", E::SourceAndDestinationIdentical{path("Data")}},
        {"link-to-Data/Photos", "Data", E::SourceInsideDestination{path("Data/Photos"), path("Data")}},
        {"Data2/photos-link", "Data", E::SourceInsideDestination{path("Data/Photos"), path("Data")}},
        {"Data/../Data2", "Data/./Photos", std::nullopt},
        {"missing", "Data", E::EndpointNotFound{Role::source, path("missing")}},
        {"Data", "Data2/missing", E::EndpointNotFound{Role::destination, path("Data2/missing")}},
        {"Data", "file.txt", E::EndpointNotADirectory{Role::destination, path("file.txt")}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.source + " -> " + c.destination);
        const auto found = failure(path(c.source), path(c.destination));
        EXPECT_EQ(found, c.expected) << describe(found);
    }

    const auto accepted = validator().validate(path("link-to-Data"), path("Data2"));
    EXPECT_EQ(accepted.sourceURL, path("link-to-Data"));
    EXPECT_EQ(accepted.canonicalSourceURL, path("Data"));
    EXPECT_EQ(accepted.canonicalDestinationURL, path("Data2"));
    EXPECT_TRUE(accepted.isSameVolume);
    EXPECT_EQ(accepted.sourceVolume.identity, accepted.destinationVolume.identity);
    EXPECT_TRUE(accepted.warnings.empty());
}

TEST_F(EndpointValidatorRealTest, UnreadableSourceAndReadOnlyDestinationAreReallyDenied) {
    // Really denied: as root the checks run in a child that has become nobody.
    for (const char* folder : {"src", "unreadable", "dst", "readonly"})
        std::filesystem::create_directories(path(folder));
    std::filesystem::permissions(path("unreadable"), std::filesystem::perms(0300));
    std::filesystem::permissions(path("readonly"), std::filesystem::perms(0555));
    std::filesystem::permissions(path("dst"), std::filesystem::perms(0777));

    const auto outcome = [this](const std::string& source, const std::string& destination) {
        return inUnprivilegedChild([&] { return describe(failure(path(source), path(destination))); });
    };
    EXPECT_EQ(outcome("src", "dst"), "accepted");  // the child can validate at all
    EXPECT_EQ(outcome("unreadable", "dst"), E(E::SourceNotReadable{path("unreadable")}).message());
    EXPECT_EQ(outcome("src", "readonly"), E(E::DestinationNotWritable{path("readonly")}).message());
}

TEST_F(EndpointValidatorRealTest, ReadOnlyBindMountIsNotWritableEvenForRoot) {
    MountSandbox mounts;
    if (auto why = MountSandbox::unavailableReason(); !why.empty()) GTEST_SKIP() << why;
    std::filesystem::create_directories(path("src"));
    std::filesystem::create_directories(path("dst"));
    std::filesystem::permissions(path("dst"), std::filesystem::perms(0777));
    if (auto why = mounts.bindReadOnly(path("dst"), path("dst-ro")); !why.empty()) GTEST_SKIP() << why;

    EXPECT_EQ(failure(path("src"), path("dst")), std::nullopt);
    EXPECT_EQ(failure(path("src"), path("dst-ro")), SyncError(E::DestinationNotWritable{path("dst-ro")}));
    // Reading from a read-only mount is fine.
    EXPECT_EQ(failure(path("dst-ro"), path("src")), std::nullopt);
}

TEST_F(EndpointValidatorRealTest, UnpluggedDriveWhoseMountPointIsAPlainFolderIsNotMounted) {
    MountSandbox mounts;
    if (auto why = MountSandbox::unavailableReason(); !why.empty()) GTEST_SKIP() << why;
    std::filesystem::create_directories(path("src"));
    const std::string drive = path("media/Backup");
    if (auto why = mounts.mountImage(path("backup.img"), {"mkfs.ext4", "-q", "-F", "-L", "VarnelBackup"}, 32 << 20, drive); !why.empty()) GTEST_SKIP() << why;

    const VolumeIdentity recorded = validator().identityOf(drive);
    if (!recorded.volumeUUID) GTEST_SKIP() << "the volume query found no UUID on a loop-mounted ext4";
    EXPECT_EQ(recorded.mountPointPath, drive);
    const EndpointExpectations expected{SyncMode::mirror, std::nullopt, recorded};

    const auto mounted = validator().validate(path("src"), drive, expected);
    EXPECT_FALSE(mounted.isSameVolume);
    EXPECT_TRUE(mounted.warnings.empty());

    ASSERT_EQ(mounts.unmount(drive), "");
    ASSERT_TRUE(std::filesystem::is_empty(drive));  // just the empty folder underneath
    EXPECT_EQ(failure(path("src"), drive, expected), SyncError(E::VolumeNotMounted{Role::destination, "VarnelBackup"}));

    if (auto why = mounts.mountImage(path("other.img"), {"mkfs.ext4", "-q", "-F", "-L", "Other"}, 32 << 20, drive); !why.empty()) GTEST_SKIP() << why;
    EXPECT_EQ(failure(path("src"), drive, expected),
              SyncError(E::VolumeIdentityMismatch{
                  Role::destination, "The volume mounted at " + drive +
                                         " is not the one this profile was configured with. Expected volume "
                                         "“VarnelBackup”, found “Other”."}));
}

}  // namespace

}  // namespace varnel::testing
