#pragma once

namespace varnel {

// What one successful flush did.
struct FlushResult {
    // The full flush was refused as unsupported and the weaker flush was used instead.
    bool fellBackFromFullFlush = false;
    // Time spent inside the flush calls themselves (not the open or the checks).
    double seconds = 0;

    friend bool operator==(const FlushResult&, const FlushResult&) = default;
};

}  // namespace varnel
