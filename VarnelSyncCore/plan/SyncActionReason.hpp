#pragma once

#include "common/BoxedOptional.hpp"
#include "common/BoxedString.hpp"
#include "scan/EntryKind.hpp"
#include "scan/FileTimestamp.hpp"

#include <nlohmann/json_fwd.hpp>

#include <cstdint>
#include <string>
#include <string_view>
#include <variant>

namespace varnel {

// Why the plan does what it does with one item; shown in the plan's Reason column.
class SyncActionReason {
public:
#define VARNEL_REASON(Name, ...)                                      \
    struct Name {                                                     \
        __VA_ARGS__                                                   \
        friend bool operator==(const Name&, const Name&) = default;   \
    }
    VARNEL_REASON(NotPresentInDestination, );
    // A changed file's two sizes or two modification times, boxed: only changed files
    // carry them, and held inline they would widen every action of a plan by 8 bytes.
    class SizeDiffers {
    public:
        SizeDiffers(std::int64_t source, std::int64_t destination) : sizes_(Pair{source, destination}) {}
        std::int64_t source() const { return sizes_->source; }
        std::int64_t destination() const { return sizes_->destination; }
        friend bool operator==(const SizeDiffers&, const SizeDiffers&) = default;

    private:
        struct Pair {
            std::int64_t source;
            std::int64_t destination;
            friend bool operator==(const Pair&, const Pair&) = default;
        };
        BoxedOptional<Pair> sizes_;  // always set
    };
    class FileTimes {
    public:
        FileTimes(FileTimestamp source, FileTimestamp destination) : times_(Pair{source, destination}) {}
        FileTimestamp sourceTime() const { return times_->source; }
        FileTimestamp destinationTime() const { return times_->destination; }
        friend bool operator==(const FileTimes&, const FileTimes&) = default;

    private:
        struct Pair {
            FileTimestamp source;
            FileTimestamp destination;
            friend bool operator==(const Pair&, const Pair&) = default;
        };
        BoxedOptional<Pair> times_;  // always set
    };
    struct SourceIsNewer : FileTimes {
        using FileTimes::FileTimes;
        friend bool operator==(const SourceIsNewer&, const SourceIsNewer&) = default;
    };
    struct TimestampsDifferAmbiguously : FileTimes {
        using FileTimes::FileTimes;
        friend bool operator==(const TimestampsDifferAmbiguously&, const TimestampsDifferAmbiguously&) = default;
    };
    VARNEL_REASON(TypeChanged, EntryKind from; EntryKind to;);
    // Both targets in one string, joined by a NUL that no link target holds. Rare texts
    // are boxed: a string here would set the size of every reason, and so of every action.
    struct SymlinkTargetChanged {
        SymlinkTargetChanged(std::string_view from, std::string_view to);
        std::string_view from() const;
        std::string_view to() const;
        friend bool operator==(const SymlinkTargetChanged&, const SymlinkTargetChanged&) = default;

    private:
        BoxedString targets_;
    };
    VARNEL_REASON(IdenticalMetadata, );
    VARNEL_REASON(MissingParentDirectory, );
    VARNEL_REASON(NotPresentInSource, );
    VARNEL_REASON(MatchedExclusionRule, BoxedString description;);
    VARNEL_REASON(HiddenFileSkipped, );
    VARNEL_REASON(UnsupportedFileType, UnsupportedReason reason;);
    VARNEL_REASON(CaseCollision, BoxedString otherPath;);
    VARNEL_REASON(HardLinkNotPreserved, std::uint64_t linkCount;);
    VARNEL_REASON(SparseFileMayExpand, );
    VARNEL_REASON(SymlinkEscapesSourceTree, BoxedString target;);
    VARNEL_REASON(PermissionDenied, BoxedString detail;);
    VARNEL_REASON(ScanFailure, BoxedString detail;);
    VARNEL_REASON(OnlineOnlyInSource, );
#undef VARNEL_REASON

    using Case = std::variant<NotPresentInDestination, SizeDiffers, SourceIsNewer, TimestampsDifferAmbiguously,
                              TypeChanged, SymlinkTargetChanged, IdenticalMetadata, MissingParentDirectory,
                              NotPresentInSource, MatchedExclusionRule, HiddenFileSkipped, UnsupportedFileType,
                              CaseCollision, HardLinkNotPreserved, SparseFileMayExpand, SymlinkEscapesSourceTree,
                              PermissionDenied, ScanFailure, OnlineOnlyInSource>;

    SyncActionReason() = default;
    template <typename T>
        requires std::is_constructible_v<Case, T>
    SyncActionReason(T value) : case_(std::move(value)) {}

    const Case& value() const { return case_; }
    template <typename T>
    const T* as() const { return std::get_if<T>(&case_); }
    template <typename T>
    bool is() const { return std::holds_alternative<T>(case_); }

    // The case name, which is also its JSON key.
    std::string_view name() const;
    // The Reason column text ("Size differs (1.5 MB vs 12 bytes)", ...), translated.
    std::string text() const;

    friend bool operator==(const SyncActionReason&, const SyncActionReason&) = default;

private:
    Case case_;
};

// {"<case name>": {<payload fields>}}; payload-free cases hold an empty object and the
// one unlabelled payload (the unsupported reason) uses the key "_0".
void to_json(nlohmann::json& json, const SyncActionReason& reason);
void from_json(const nlohmann::json& json, SyncActionReason& reason);

}  // namespace varnel
