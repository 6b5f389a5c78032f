#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <variant>

namespace varnel {

// A failed flush step. The first four cases mean nothing was committed; the last two
// happen after the rename: the file is in place but its folder entry may not be durable.
class DurabilityError : public std::exception {
public:
    struct PartialFileOpenFailed { std::string path; int errnoValue; friend bool operator==(const PartialFileOpenFailed&, const PartialFileOpenFailed&) = default; };
    struct StagedFileChangedBeforeFlush { std::string path; std::uint64_t expectedSize; std::uint64_t actual; friend bool operator==(const StagedFileChangedBeforeFlush&, const StagedFileChangedBeforeFlush&) = default; };
    struct FileFlushFailed { std::string path; int errnoValue; friend bool operator==(const FileFlushFailed&, const FileFlushFailed&) = default; };
    struct FullFlushFailed { std::string path; int errnoValue; friend bool operator==(const FullFlushFailed&, const FullFlushFailed&) = default; };
    struct ParentDirectoryOpenFailed { std::string path; int errnoValue; friend bool operator==(const ParentDirectoryOpenFailed&, const ParentDirectoryOpenFailed&) = default; };
    struct ParentDirectoryFlushFailed { std::string path; int errnoValue; friend bool operator==(const ParentDirectoryFlushFailed&, const ParentDirectoryFlushFailed&) = default; };

    using Case = std::variant<PartialFileOpenFailed, StagedFileChangedBeforeFlush, FileFlushFailed, FullFlushFailed,
                              ParentDirectoryOpenFailed, ParentDirectoryFlushFailed>;

    template <typename T>
        requires std::is_constructible_v<Case, T>
    DurabilityError(T value) : case_(std::move(value)), message_(describe(case_)) {}

    const Case& value() const { return case_; }
    template <typename T>
    const T* as() const { return std::get_if<T>(&case_); }

    // Stable snake-case code written to run logs.
    std::string code() const;
    std::string message() const { return message_; }
    const char* what() const noexcept override { return message_.c_str(); }
    // Whether the file had already been committed when the step failed.
    bool happenedAfterCommit() const;
    const std::string& path() const;

    friend bool operator==(const DurabilityError& a, const DurabilityError& b) { return a.case_ == b.case_; }

private:
    static std::string describe(const Case& value);

    Case case_;
    std::string message_;
};

}  // namespace varnel
