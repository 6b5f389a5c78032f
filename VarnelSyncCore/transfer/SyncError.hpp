#pragma once

#include "model/RelativePath.hpp"
#include "scan/EntryKind.hpp"
#include "transfer/DurabilityError.hpp"
#include "transfer/EndpointRole.hpp"

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <variant>

namespace varnel {

// Every failure of analysis or synchronisation, as one value: a stable code for run
// logs (never translated; old logs carry these codes) and a complete user sentence.
// Relative paths are shown by their description, so the root reads "/".
class SyncError : public std::exception {
public:
#define VARNEL_CASE(Name, ...)                                              \
    struct Name {                                                           \
        __VA_ARGS__                                                         \
        friend bool operator==(const Name&, const Name&) = default;         \
    }
    VARNEL_CASE(BookmarkResolutionFailed, EndpointRole role; std::string detail;);
    VARNEL_CASE(BookmarkStaleAndUnrecoverable, EndpointRole role;);
    VARNEL_CASE(SecurityScopeDenied, EndpointRole role; std::string path;);
    VARNEL_CASE(EndpointNotFound, EndpointRole role; std::string path;);
    VARNEL_CASE(EndpointNotADirectory, EndpointRole role; std::string path;);
    VARNEL_CASE(SourceNotReadable, std::string path;);
    VARNEL_CASE(DestinationNotWritable, std::string path;);
    VARNEL_CASE(SourceAndDestinationIdentical, std::string path;);
    VARNEL_CASE(DestinationInsideSource, std::string sourcePath; std::string destinationPath;);
    VARNEL_CASE(SourceInsideDestination, std::string sourcePath; std::string destinationPath;);
    VARNEL_CASE(VolumeIdentityMismatch, EndpointRole role; std::string detail;);
    VARNEL_CASE(VolumeNotMounted, EndpointRole role; std::optional<std::string> volumeName;);
    VARNEL_CASE(InsufficientDestinationSpace, std::int64_t required; std::int64_t available;);
    VARNEL_CASE(VolumeDisappeared, EndpointRole role; std::optional<std::string> volumeName;);
    VARNEL_CASE(SourceChangedSinceAnalysis, RelativePath relativePath; std::string detail;);
    VARNEL_CASE(CopyFailed, RelativePath relativePath; int errnoValue; std::string detail;);
    VARNEL_CASE(VerificationFailed, RelativePath relativePath; std::string expected; std::string actual;);
    VARNEL_CASE(AtomicReplaceFailed, RelativePath relativePath; int errnoValue; std::string detail;);
    VARNEL_CASE(ArchiveFailed, RelativePath relativePath; std::string detail;);
    VARNEL_CASE(DirectoryCreationFailed, RelativePath relativePath; std::string detail;);
    VARNEL_CASE(MetadataPreservationFailed, RelativePath relativePath; std::string detail;);
    VARNEL_CASE(UnsupportedItem, RelativePath relativePath; UnsupportedReason reason;);
    VARNEL_CASE(DurabilityFailed, DurabilityError error;);
    VARNEL_CASE(OnlineOnlyDownloadFailed, RelativePath relativePath; int errnoValue; std::string detail;);
    VARNEL_CASE(ProfileStoreFailure, std::string detail;);
    VARNEL_CASE(RunLogFailure, std::string detail;);
    VARNEL_CASE(SourceBookmarkMissing, );
    VARNEL_CASE(DestinationBookmarkMissing, );
    VARNEL_CASE(Cancelled, );
    VARNEL_CASE(PlanIsStale, );
    VARNEL_CASE(ConfirmationRequired, );
#undef VARNEL_CASE

    using Case = std::variant<BookmarkResolutionFailed, BookmarkStaleAndUnrecoverable, SecurityScopeDenied,
                              EndpointNotFound, EndpointNotADirectory, SourceNotReadable, DestinationNotWritable,
                              SourceAndDestinationIdentical, DestinationInsideSource, SourceInsideDestination,
                              VolumeIdentityMismatch, VolumeNotMounted, InsufficientDestinationSpace,
                              VolumeDisappeared, SourceChangedSinceAnalysis, CopyFailed, VerificationFailed,
                              AtomicReplaceFailed, ArchiveFailed, DirectoryCreationFailed,
                              MetadataPreservationFailed, UnsupportedItem, DurabilityFailed,
                              OnlineOnlyDownloadFailed, ProfileStoreFailure, RunLogFailure, SourceBookmarkMissing,
                              DestinationBookmarkMissing, Cancelled, PlanIsStale, ConfirmationRequired>;

    template <typename T>
        requires std::is_constructible_v<Case, T>
    SyncError(T value) : case_(std::move(value)), message_(describe(case_)) {}

    const Case& value() const { return case_; }
    template <typename T>
    const T* as() const { return std::get_if<T>(&case_); }
    template <typename T>
    bool is() const { return std::holds_alternative<T>(case_); }

    std::string code() const;
    std::string message() const { return message_; }
    const char* what() const noexcept override { return message_.c_str(); }

    friend bool operator==(const SyncError& a, const SyncError& b) { return a.case_ == b.case_; }

private:
    static std::string describe(const Case& value);

    Case case_;
    std::string message_;
};

}  // namespace varnel
