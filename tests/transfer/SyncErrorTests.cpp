#include "scan/POSIXFileError.hpp"
#include "transfer/SyncError.hpp"

#include <gtest/gtest.h>

#include <cerrno>
#include <set>

namespace varnel {
namespace {

RelativePath path(const char* value) {
    return *RelativePath::fromString(value);
}

using E = SyncError;
constexpr auto kSource = EndpointRole::source;
constexpr auto kDestination = EndpointRole::destination;

struct Row {
    SyncError error;
    const char* code;
    const char* message;
};

// The codes are a stable contract: run logs written by earlier versions carry them.
TEST(SyncErrorTest, EveryCaseHasItsStableCodeAndSentence) {
    const DurabilityError flush = DurabilityError::FileFlushFailed{"/d/a.txt", EIO};
    const std::vector<Row> rows = {
        {E::BookmarkResolutionFailed{kSource, "It moved."}, "bookmark_resolution_failed",
         "The saved source folder could not be reopened. It moved."},
        {E::BookmarkStaleAndUnrecoverable{kDestination}, "bookmark_stale",
         "The saved destination folder reference is out of date and could not be refreshed. Choose the folder again."},
        {E::SecurityScopeDenied{kSource, "/s"}, "security_scope_denied",
         "Varnel Sync was denied access to the source folder at /s. Choose the folder again to re-grant access."},
        {E::EndpointNotFound{kDestination, "/d"}, "endpoint_not_found", "The destination folder no longer exists at /d."},
        {E::EndpointNotADirectory{kSource, "/s"}, "endpoint_not_directory", "The source path /s is not a folder."},
        {E::SourceNotReadable{"/s"}, "source_not_readable", "The source folder at /s could not be read."},
        {E::DestinationNotWritable{"/d"}, "destination_not_writable", "The destination folder at /d is not writable."},
        {E::SourceAndDestinationIdentical{"/x"}, "source_destination_identical",
         "The source and destination are the same folder (/x)."},
        {E::DestinationInsideSource{"/Data", "/Data/Backup"}, "destination_inside_source",
         "The destination (/Data/Backup) is inside the source (/Data). This would copy the destination into itself."},
        {E::SourceInsideDestination{"/Data/Backup", "/Data"}, "source_inside_destination",
         "The source (/Data/Backup) is inside the destination (/Data). Mirror mode could archive the source itself."},
        {E::VolumeIdentityMismatch{kDestination, "Expected volume “A” but found “B” at this mount point."},
         "volume_identity_mismatch",
         "The destination volume is not the one this profile expects. Expected volume “A” but found “B” at this mount "
         "point."},
        {E::VolumeNotMounted{kDestination, std::string("Backup")}, "volume_not_mounted",
         "The destination volume “Backup” is not mounted."},
        {E::InsufficientDestinationSpace{1'500'000'000, 999}, "insufficient_space",
         "Not enough space on the destination. This run needs about 1.5 GB but only 999 bytes is free."},
        {E::VolumeDisappeared{kSource, std::nullopt}, "volume_disappeared",
         "The source volume was disconnected during the run."},
        {E::SourceChangedSinceAnalysis{path("a/b.txt"), "Its size changed."}, "source_changed",
         "“a/b.txt” changed after the plan was created. Its size changed."},
        {E::CopyFailed{RelativePath(), EIO, "Input/output error"}, "copy_failed",
         "Could not copy “/”. Input/output error (errno 5)"},
        {E::VerificationFailed{path("x"), "0123456789abcdef0123", "fedcba9876543210fedc"}, "verification_failed",
         "Checksum verification failed for “x”. Expected 0123456789abcdef…, got fedcba9876543210…. The destination "
         "file was not modified."},
        {E::AtomicReplaceFailed{path("x"), EXDEV, "Invalid cross-device link"}, "atomic_replace_failed",
         "Could not commit the new copy of “x”. The existing file was left untouched. Invalid cross-device link (errno "
         "18)"},
        {E::ArchiveFailed{path("old"), "No space."}, "archive_failed",
         "Could not move “old” to the archive folder. No space."},
        {E::DirectoryCreationFailed{path("new"), "Denied."}, "directory_creation_failed",
         "Could not create the folder “new”. Denied."},
        {E::MetadataPreservationFailed{path("f"), "xattr"}, "metadata_failed", "Could not preserve metadata for “f”. xattr"},
        {E::UnsupportedItem{path("p"), UnsupportedReason::fifo}, "unsupported_item",
         "“p” is a named pipe (FIFO) and cannot be copied."},
        {E::DurabilityFailed{flush}, "file_fsync_failed",
         "“/d/a.txt” could not be flushed to storage (Input/output error). It was not committed, so any existing file "
         "is unchanged."},
        {E::OnlineOnlyDownloadFailed{path("c"), ETIMEDOUT, "timed out"}, "online_only_download_failed",
         "Could not download “c” from the cloud: timed out (errno 110). Check that its cloud app is running and online, "
         "then synchronize again."},
        {E::ProfileStoreFailure{"Disk full."}, "profile_store_failure", "Profiles could not be saved. Disk full."},
        {E::RunLogFailure{"Disk full."}, "run_log_failure", "The run log could not be written. Disk full."},
        {E::SourceBookmarkMissing{}, "source_bookmark_missing", "No source folder is saved for this profile."},
        {E::DestinationBookmarkMissing{}, "destination_bookmark_missing",
         "No destination folder is saved for this profile."},
        {E::Cancelled{}, "cancelled", "The synchronization was cancelled."},
        {E::PlanIsStale{}, "plan_stale", "The plan is no longer valid. Run Analyze again."},
        {E::ConfirmationRequired{}, "confirmation_required", "This run needs explicit confirmation before it can start."},
    };
    ASSERT_EQ(rows.size(), std::variant_size_v<SyncError::Case>) << "every case needs a row";
    std::set<std::size_t> seenCases;
    for (const auto& row : rows) {
        seenCases.insert(row.error.value().index());
        EXPECT_EQ(row.error.code(), row.code);
        EXPECT_EQ(row.error.message(), row.message) << row.code;
        EXPECT_STREQ(row.error.what(), row.message);
    }
    EXPECT_EQ(seenCases.size(), rows.size()) << "a case appears twice in the table";
}

TEST(SyncErrorTest, OptionalVolumeNameKeepsQuotesWhenPresentButEmpty) {
    EXPECT_EQ(SyncError(E::VolumeNotMounted{kSource, std::nullopt}).message(), "The source volume is not mounted.");
    EXPECT_EQ(SyncError(E::VolumeNotMounted{kSource, std::string()}).message(), "The source volume “” is not mounted.");
    EXPECT_EQ(SyncError(E::VolumeDisappeared{kDestination, std::string("USB")}).message(),
              "The destination volume “USB” was disconnected during the run.");
}

TEST(SyncErrorTest, EqualityComparesCaseAndPayload) {
    EXPECT_EQ(SyncError(E::Cancelled{}), SyncError(E::Cancelled{}));
    EXPECT_NE(SyncError(E::Cancelled{}), SyncError(E::PlanIsStale{}));
    EXPECT_NE(SyncError(E::SourceNotReadable{"/a"}), SyncError(E::SourceNotReadable{"/b"}));
    const SyncError error = E::CopyFailed{path("x"), EIO, "d"};
    ASSERT_NE(error.as<E::CopyFailed>(), nullptr);
    EXPECT_EQ(error.as<E::CopyFailed>()->errnoValue, EIO);
    EXPECT_TRUE(error.is<E::CopyFailed>());
}

TEST(DurabilityErrorTest, CodesMessagesAndCommitSide) {
    struct DurabilityRow {
        DurabilityError error;
        const char* code;
        const char* message;
        bool afterCommit;
    };
    const std::vector<DurabilityRow> rows = {
        {DurabilityError::PartialFileOpenFailed{"/d/.a.partial", ENOENT}, "partial_open_failed",
         "The staged copy of “/d/.a.partial” could not be opened to flush it to disk (No such file or directory). "
         "Nothing was committed; any existing file is unchanged.",
         false},
        {DurabilityError::StagedFileChangedBeforeFlush{"/d/.a", 1'500'000, 12}, "staged_file_changed",
         "The staged copy of “/d/.a” changed before it could be flushed (expected 1.5 MB, found 12 bytes). It was "
         "discarded; any existing file is unchanged.",
         false},
        {DurabilityError::FileFlushFailed{"/d/a", EIO}, "file_fsync_failed",
         "“/d/a” could not be flushed to storage (Input/output error). It was not committed, so any existing file is "
         "unchanged.",
         false},
        {DurabilityError::FullFlushFailed{"/d/a", EIO}, "full_fsync_failed",
         "The full storage flush for “/d/a” failed (Input/output error). It was not committed, so any existing file is "
         "unchanged.",
         false},
        {DurabilityError::ParentDirectoryOpenFailed{"/d", EACCES}, "parent_dir_open_failed",
         "“/d” could not be opened to flush the folder entry (Permission denied). The file itself was written and is "
         "in place, but its directory entry may not survive a power cut.",
         true},
        {DurabilityError::ParentDirectoryFlushFailed{"/d", EIO}, "parent_dir_fsync_failed",
         "The folder “/d” could not be flushed after the file was committed (Input/output error). The file is in place "
         "and its contents are on the device, but the folder entry pointing at it may not survive a power cut.",
         true},
    };
    ASSERT_EQ(rows.size(), std::variant_size_v<DurabilityError::Case>);
    for (const auto& row : rows) {
        EXPECT_EQ(row.error.code(), row.code);
        EXPECT_EQ(row.error.message(), row.message);
        EXPECT_EQ(row.error.happenedAfterCommit(), row.afterCommit) << row.code;
        // Wrapped as a run error, the inner case decides the code and the sentence.
        const SyncError wrapped = E::DurabilityFailed{row.error};
        EXPECT_EQ(wrapped.code(), row.code);
        EXPECT_EQ(wrapped.message(), row.message);
    }
}

TEST(POSIXFileErrorTest, NamesOperationPathAndSystemText) {
    const POSIXFileError error(ENOENT, "rename", "/Volumes/Backup/a.txt");
    EXPECT_STREQ(error.what(), "rename failed for /Volumes/Backup/a.txt: No such file or directory");
    EXPECT_EQ(error.errnoValue(), ENOENT);
    EXPECT_EQ(error.operation(), "rename");
}

}  // namespace
}  // namespace varnel
