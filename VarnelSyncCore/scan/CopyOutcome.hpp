#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace varnel {

// What copying one regular file into its staging file did.
struct CopyOutcome {
    // The file's length: data copied plus holes kept (a sparse file's holes count, so
    // this equals the staged file's size).
    std::int64_t bytesWritten = 0;
    // One name per piece of metadata that could not be carried over ("permissions",
    // "owner", "extended attributes", "ACL", "timestamps"); the data copy still counts.
    std::vector<std::string> metadataProblems;
    // The data was cloned (shares blocks with the source), not copied.
    bool usedClone = false;

    friend bool operator==(const CopyOutcome&, const CopyOutcome&) = default;
};

}  // namespace varnel
