#include "transfer/SyncError.hpp"

#include "common/ByteCount.hpp"
#include "common/Localization.hpp"
#include "common/Overloaded.hpp"

namespace varnel {

namespace {

using E = SyncError;

std::string shortDigest(const std::string& digest) {
    return digest.substr(0, 16);
}

}  // namespace

std::string SyncError::code() const {
    return std::visit(
        Overloaded{
            [](const E::BookmarkResolutionFailed&) -> std::string { return "bookmark_resolution_failed"; },
            [](const E::BookmarkStaleAndUnrecoverable&) -> std::string { return "bookmark_stale"; },
            [](const E::SecurityScopeDenied&) -> std::string { return "security_scope_denied"; },
            [](const E::EndpointNotFound&) -> std::string { return "endpoint_not_found"; },
            [](const E::EndpointNotADirectory&) -> std::string { return "endpoint_not_directory"; },
            [](const E::SourceNotReadable&) -> std::string { return "source_not_readable"; },
            [](const E::DestinationNotWritable&) -> std::string { return "destination_not_writable"; },
            [](const E::SourceAndDestinationIdentical&) -> std::string { return "source_destination_identical"; },
            [](const E::DestinationInsideSource&) -> std::string { return "destination_inside_source"; },
            [](const E::SourceInsideDestination&) -> std::string { return "source_inside_destination"; },
            [](const E::VolumeIdentityMismatch&) -> std::string { return "volume_identity_mismatch"; },
            [](const E::VolumeNotMounted&) -> std::string { return "volume_not_mounted"; },
            [](const E::InsufficientDestinationSpace&) -> std::string { return "insufficient_space"; },
            [](const E::VolumeDisappeared&) -> std::string { return "volume_disappeared"; },
            [](const E::SourceChangedSinceAnalysis&) -> std::string { return "source_changed"; },
            [](const E::CopyFailed&) -> std::string { return "copy_failed"; },
            [](const E::VerificationFailed&) -> std::string { return "verification_failed"; },
            [](const E::AtomicReplaceFailed&) -> std::string { return "atomic_replace_failed"; },
            [](const E::ArchiveFailed&) -> std::string { return "archive_failed"; },
            [](const E::DirectoryCreationFailed&) -> std::string { return "directory_creation_failed"; },
            [](const E::MetadataPreservationFailed&) -> std::string { return "metadata_failed"; },
            [](const E::UnsupportedItem&) -> std::string { return "unsupported_item"; },
            [](const E::DurabilityFailed& c) -> std::string { return c.error.code(); },
            [](const E::OnlineOnlyDownloadFailed&) -> std::string { return "online_only_download_failed"; },
            [](const E::ProfileStoreFailure&) -> std::string { return "profile_store_failure"; },
            [](const E::RunLogFailure&) -> std::string { return "run_log_failure"; },
            [](const E::SourceBookmarkMissing&) -> std::string { return "source_bookmark_missing"; },
            [](const E::DestinationBookmarkMissing&) -> std::string { return "destination_bookmark_missing"; },
            [](const E::Cancelled&) -> std::string { return "cancelled"; },
            [](const E::PlanIsStale&) -> std::string { return "plan_stale"; },
            [](const E::ConfirmationRequired&) -> std::string { return "confirmation_required"; },
        },
        case_);
}

std::string SyncError::describe(const Case& value) {
    return std::visit(
        Overloaded{
            [](const E::BookmarkResolutionFailed& c) {
                return trFormat("The saved {} folder could not be reopened. {}", roleWord(c.role), c.detail);
            },
            [](const E::BookmarkStaleAndUnrecoverable& c) {
                return trFormat(
                    "The saved {} folder reference is out of date and could not be refreshed. Choose the folder again.",
                    roleWord(c.role));
            },
            [](const E::SecurityScopeDenied& c) {
                return trFormat("Varnel Sync was denied access to the {} folder at {}. Choose the folder again to "
                                "re-grant access.",
                                roleWord(c.role), c.path);
            },
            [](const E::EndpointNotFound& c) {
                return trFormat("The {} folder no longer exists at {}.", roleWord(c.role), c.path);
            },
            [](const E::EndpointNotADirectory& c) {
                return trFormat("The {} path {} is not a folder.", roleWord(c.role), c.path);
            },
            [](const E::SourceNotReadable& c) {
                return trFormat("The source folder at {} could not be read.", c.path);
            },
            [](const E::DestinationNotWritable& c) {
                return trFormat("The destination folder at {} is not writable.", c.path);
            },
            [](const E::SourceAndDestinationIdentical& c) {
                return trFormat("The source and destination are the same folder ({}).", c.path);
            },
            [](const E::DestinationInsideSource& c) {
                return trFormat(
                    "The destination ({}) is inside the source ({}). This would copy the destination into itself.",
                    c.destinationPath, c.sourcePath);
            },
            [](const E::SourceInsideDestination& c) {
                return trFormat(
                    "The source ({}) is inside the destination ({}). Mirror mode could archive the source itself.",
                    c.sourcePath, c.destinationPath);
            },
            [](const E::VolumeIdentityMismatch& c) {
                return trFormat("The {} volume is not the one this profile expects. {}", roleWord(c.role), c.detail);
            },
            [](const E::VolumeNotMounted& c) {
                if (c.volumeName) {
                    return trFormat("The {} volume “{}” is not mounted.", roleWord(c.role), *c.volumeName);
                }
                return trFormat("The {} volume is not mounted.", roleWord(c.role));
            },
            [](const E::InsufficientDestinationSpace& c) {
                return trFormat("Not enough space on the destination. This run needs about {} but only {} is free.",
                                formatByteCount(c.required), formatByteCount(c.available));
            },
            [](const E::VolumeDisappeared& c) {
                if (c.volumeName) {
                    return trFormat("The {} volume “{}” was disconnected during the run.", roleWord(c.role),
                                    *c.volumeName);
                }
                return trFormat("The {} volume was disconnected during the run.", roleWord(c.role));
            },
            [](const E::SourceChangedSinceAnalysis& c) {
                return trFormat("“{}” changed after the plan was created. {}", c.relativePath.description(), c.detail);
            },
            [](const E::CopyFailed& c) {
                return trFormat("Could not copy “{}”. {} (errno {})", c.relativePath.description(), c.detail, c.errnoValue);
            },
            [](const E::VerificationFailed& c) {
                return trFormat("Checksum verification failed for “{}”. Expected {}…, got {}…. The destination file "
                                "was not modified.",
                                c.relativePath.description(), shortDigest(c.expected), shortDigest(c.actual));
            },
            [](const E::AtomicReplaceFailed& c) {
                return trFormat("Could not commit the new copy of “{}”. The existing file was left untouched. {} "
                                "(errno {})",
                                c.relativePath.description(), c.detail, c.errnoValue);
            },
            [](const E::ArchiveFailed& c) {
                return trFormat("Could not move “{}” to the archive folder. {}", c.relativePath.description(), c.detail);
            },
            [](const E::DirectoryCreationFailed& c) {
                return trFormat("Could not create the folder “{}”. {}", c.relativePath.description(), c.detail);
            },
            [](const E::MetadataPreservationFailed& c) {
                return trFormat("Could not preserve metadata for “{}”. {}", c.relativePath.description(), c.detail);
            },
            [](const E::UnsupportedItem& c) {
                return trFormat("“{}” is a {} and cannot be copied.", c.relativePath.description(), phrase(c.reason));
            },
            [](const E::DurabilityFailed& c) {
                const std::string inner = c.error.message();
                return inner.empty() ? std::string(tr("A durability step failed.")) : inner;
            },
            [](const E::OnlineOnlyDownloadFailed& c) {
                return trFormat("Could not download “{}” from the cloud: {} (errno {}). Check that its cloud app is "
                                "running and online, then synchronize again.",
                                c.relativePath.description(), c.detail, c.errnoValue);
            },
            [](const E::ProfileStoreFailure& c) { return trFormat("Profiles could not be saved. {}", c.detail); },
            [](const E::RunLogFailure& c) { return trFormat("The run log could not be written. {}", c.detail); },
            [](const E::SourceBookmarkMissing&) {
                return std::string(tr("No source folder is saved for this profile."));
            },
            [](const E::DestinationBookmarkMissing&) {
                return std::string(tr("No destination folder is saved for this profile."));
            },
            [](const E::Cancelled&) { return std::string(tr("The synchronization was cancelled.")); },
            [](const E::PlanIsStale&) { return std::string(tr("The plan is no longer valid. Run Analyze again.")); },
            [](const E::ConfirmationRequired&) {
                return std::string(tr("This run needs explicit confirmation before it can start."));
            },
        },
        value);
}

}  // namespace varnel
