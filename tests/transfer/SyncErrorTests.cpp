#include "scan/POSIXFileError.hpp"
#include "transfer/SyncError.hpp"

#include <gtest/gtest.h>

#include <cerrno>
#include <set>

namespace varnel {
namespace {

RelativePath path(const char* value) { return *RelativePath::fromString(value); }

using E = SyncError;
constexpr auto kSource = EndpointRole::source;
constexpr auto kDestination = EndpointRole::destination;

// The codes are a stable contract: run logs written by earlier versions carry them.
TEST(SyncErrorTest, EveryCaseHasItsOwnStableCode) {
    const std::pair<SyncError, const char*> rows[] = {
        {E::BookmarkResolutionFailed{kSource, "It moved."}, "bookmark_resolution_failed"},
        {E::BookmarkStaleAndUnrecoverable{kDestination}, "bookmark_stale"},
        {E::SecurityScopeDenied{kSource, "/s"}, "security_scope_denied"},
        {E::EndpointNotFound{kDestination, "/d"}, "endpoint_not_found"},
        {E::EndpointNotADirectory{kSource, "/s"}, "endpoint_not_directory"},
        {E::SourceNotReadable{"/s"}, "source_not_readable"},
        {E::DestinationNotWritable{"/d"}, "destination_not_writable"},
        {E::SourceAndDestinationIdentical{"/x"}, "source_destination_identical"},
        {E::DestinationInsideSource{"/Data", "/Data/Backup"}, "destination_inside_source"},
        {E::SourceInsideDestination{"/Data/Backup", "/Data"}, "source_inside_destination"},
        {E::VolumeIdentityMismatch{kDestination, "x"}, "volume_identity_mismatch"},
        {E::VolumeNotMounted{kDestination, std::string("Backup")}, "volume_not_mounted"},
        {E::InsufficientDestinationSpace{1, 0}, "insufficient_space"},
        {E::VolumeDisappeared{kSource, std::nullopt}, "volume_disappeared"},
        {E::SourceChangedSinceAnalysis{path("a"), "x"}, "source_changed"},
        {E::CopyFailed{RelativePath(), EIO, "x"}, "copy_failed"},
        {E::VerificationFailed{path("x"), "00", "11"}, "verification_failed"},
        {E::AtomicReplaceFailed{path("x"), EXDEV, "x"}, "atomic_replace_failed"},
        {E::ArchiveFailed{path("old"), "x"}, "archive_failed"},
        {E::DirectoryCreationFailed{path("new"), "x"}, "directory_creation_failed"},
        {E::MetadataPreservationFailed{path("f"), "x"}, "metadata_failed"},
        {E::UnsupportedItem{path("p"), UnsupportedReason::fifo}, "unsupported_item"},
        {E::DurabilityFailed{DurabilityError::FileFlushFailed{"/d/a", EIO}}, "file_fsync_failed"},
        {E::OnlineOnlyDownloadFailed{path("c"), ETIMEDOUT, "x"}, "online_only_download_failed"},
        {E::ProfileStoreFailure{"x"}, "profile_store_failure"},
        {E::RunLogFailure{"x"}, "run_log_failure"},
        {E::SourceBookmarkMissing{}, "source_bookmark_missing"},
        {E::DestinationBookmarkMissing{}, "destination_bookmark_missing"},
        {E::Cancelled{}, "cancelled"},
        {E::PlanIsStale{}, "plan_stale"},
        {E::ConfirmationRequired{}, "confirmation_required"},
    };
    std::set<std::size_t> seenCases;
    for (const auto& [error, code] : rows) {
        seenCases.insert(error.value().index());
        EXPECT_EQ(error.code(), code);
        EXPECT_STREQ(error.what(), error.message().c_str());
    }
    EXPECT_EQ(seenCases.size(), std::variant_size_v<SyncError::Case>) << "every case needs its own row";
}

// Only the sentences holding values worked out at run time; fixed wording is not repeated here.
TEST(SyncErrorTest, SentencesWithValuesWorkedOutAtRunTime) {
    EXPECT_EQ(SyncError(E::InsufficientDestinationSpace{1'500'000'000, 999}).message(),
              "Not enough space on the destination. This run needs about 1.5 GB but only 999 bytes is free.");
    EXPECT_EQ(SyncError(E::VerificationFailed{path("x"), "0123456789abcdef0123", "fedcba9876543210fedc"}).message(),
              "Checksum verification failed for “x”. Expected 0123456789abcdef…, got fedcba9876543210…. The "
              "destination file was not modified.");
    EXPECT_EQ(SyncError(E::CopyFailed{RelativePath(), EIO, "Input/output error"}).message(),
              "Could not copy “/”. Input/output error (errno 5)");
    EXPECT_EQ(SyncError(E::VolumeNotMounted{kSource, std::nullopt}).message(), "The source volume is not mounted.");
    EXPECT_EQ(SyncError(E::VolumeNotMounted{kSource, std::string()}).message(), "The source volume “” is not mounted.");
    EXPECT_NE(SyncError(E::SourceNotReadable{"/a"}), SyncError(E::SourceNotReadable{"/b"}));
    EXPECT_STREQ(POSIXFileError(ENOENT, "rename", "/b/a.txt").what(), "rename failed for /b/a.txt: No such file or directory");
}

// Whether the file was already in place decides what the user is told to do.
TEST(DurabilityErrorTest, CodesAndCommitSideDecideTheWrappedError) {
    const std::tuple<DurabilityError, const char*, bool> rows[] = {
        {DurabilityError::PartialFileOpenFailed{"/d/.a.partial", ENOENT}, "partial_open_failed", false},
        {DurabilityError::StagedFileChangedBeforeFlush{"/d/.a", 1'500'000, 12}, "staged_file_changed", false},
        {DurabilityError::FileFlushFailed{"/d/a", EIO}, "file_fsync_failed", false},
        {DurabilityError::FullFlushFailed{"/d/a", EIO}, "full_fsync_failed", false},
        {DurabilityError::ParentDirectoryOpenFailed{"/d", EACCES}, "parent_dir_open_failed", true},
        {DurabilityError::ParentDirectoryFlushFailed{"/d", EIO}, "parent_dir_fsync_failed", true},
    };
    ASSERT_EQ(std::size(rows), std::variant_size_v<DurabilityError::Case>);
    for (const auto& [error, code, afterCommit] : rows) {
        SCOPED_TRACE(code);
        EXPECT_EQ(error.code(), code);
        EXPECT_EQ(error.happenedAfterCommit(), afterCommit);
        const SyncError wrapped = E::DurabilityFailed{error};
        EXPECT_EQ(wrapped.code(), code);
        EXPECT_EQ(wrapped.message(), error.message());
    }
}

}  // namespace
}  // namespace varnel
