#include "transfer/DurabilityError.hpp"

#include "common/ByteCount.hpp"
#include "common/Localization.hpp"
#include "common/Overloaded.hpp"
#include "scan/POSIXFileError.hpp"

namespace varnel {

namespace {

std::int64_t clampToSigned(std::uint64_t value) {
    return value > static_cast<std::uint64_t>(INT64_MAX) ? INT64_MAX : static_cast<std::int64_t>(value);
}

}  // namespace

std::string DurabilityError::code() const {
    return std::visit(Overloaded{
                          [](const PartialFileOpenFailed&) { return "partial_open_failed"; },
                          [](const StagedFileChangedBeforeFlush&) { return "staged_file_changed"; },
                          [](const FileFlushFailed&) { return "file_fsync_failed"; },
                          [](const FullFlushFailed&) { return "full_fsync_failed"; },
                          [](const ParentDirectoryOpenFailed&) { return "parent_dir_open_failed"; },
                          [](const ParentDirectoryFlushFailed&) { return "parent_dir_fsync_failed"; },
                      },
                      case_);
}

bool DurabilityError::happenedAfterCommit() const {
    return std::holds_alternative<ParentDirectoryOpenFailed>(case_) ||
           std::holds_alternative<ParentDirectoryFlushFailed>(case_);
}

const std::string& DurabilityError::path() const {
    return std::visit([](const auto& c) -> const std::string& { return c.path; }, case_);
}

std::string DurabilityError::describe(const Case& value) {
    return std::visit(
        Overloaded{
            [](const PartialFileOpenFailed& c) {
                return trFormat("The staged copy of “{}” could not be opened to flush it to disk ({}). Nothing was "
                                "committed; any existing file is unchanged.",
                                c.path, systemErrorText(c.errnoValue));
            },
            [](const StagedFileChangedBeforeFlush& c) {
                return trFormat("The staged copy of “{}” changed before it could be flushed (expected {}, found {}). "
                                "It was discarded; any existing file is unchanged.",
                                c.path, formatByteCount(clampToSigned(c.expectedSize)),
                                formatByteCount(clampToSigned(c.actual)));
            },
            [](const FileFlushFailed& c) {
                return trFormat("“{}” could not be flushed to storage ({}). It was not committed, so any existing file "
                                "is unchanged.",
                                c.path, systemErrorText(c.errnoValue));
            },
            [](const FullFlushFailed& c) {
                return trFormat("The full storage flush for “{}” failed ({}). It was not committed, so any existing "
                                "file is unchanged.",
                                c.path, systemErrorText(c.errnoValue));
            },
            [](const ParentDirectoryOpenFailed& c) {
                return trFormat("“{}” could not be opened to flush the folder entry ({}). The file itself was written "
                                "and is in place, but its directory entry may not survive a power cut.",
                                c.path, systemErrorText(c.errnoValue));
            },
            [](const ParentDirectoryFlushFailed& c) {
                return trFormat("The folder “{}” could not be flushed after the file was committed ({}). The file is "
                                "in place and its contents are on the device, but the folder entry pointing at it may "
                                "not survive a power cut.",
                                c.path, systemErrorText(c.errnoValue));
            },
        },
        value);
}

}  // namespace varnel
