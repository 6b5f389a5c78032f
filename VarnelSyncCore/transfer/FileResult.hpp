#pragma once

#include "transfer/DurabilityError.hpp"
#include "transfer/DurabilityOutcome.hpp"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace varnel {

// The result of one successful copy (or link) written by FileCopyEngine.
struct FileResult {
    std::uint64_t bytesWritten = 0;            // bytes of file data (the file's length; 0 for a link)
    std::vector<std::string> metadataProblems;  // metadata that could not be preserved ("permissions", ...)
    bool verified = false;                      // a SHA-256 comparison was made and matched
    bool usedClone = false;                     // the file system cloned the data instead of copying it
    DurabilityOutcome durabilityOutcome = DurabilityOutcome::fastNoFlush;
    std::optional<DurabilityError> durabilityWarning;  // the folder-flush error when the outcome is uncertain
    double flushSeconds = 0;                           // measured time of the file and folder flushes

    friend bool operator==(const FileResult&, const FileResult&) = default;
};

}  // namespace varnel
