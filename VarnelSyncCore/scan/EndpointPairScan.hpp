#pragma once

#include "scan/SyncScanner.hpp"

#include <functional>
#include <optional>
#include <stop_token>

namespace varnel {

// Both sides of a sync scanned at once: the destination on a second thread while the
// source is scanned on the calling one. Listing and stat calls spend most of their time
// waiting on the file system, so the two walks overlap almost completely, on one disk or
// two.
//
// To its caller it looks like the source scan followed by the destination scan:
// progress comes as the source's reports, then (once the source is done) the latest and
// further destination reports, never two calls at once; when both scans fail, the
// source's error is the one thrown. A failed source stops the destination scan early.
struct EndpointPairScan {
    struct Side {
        const EndpointRoot& root;
        bool volumeIsCaseSensitive = true;
    };
    // Called with no ScanProgress when a side's phase begins.
    using ProgressHandler = std::function<void(EndpointRole, const std::optional<ScanProgress>&)>;

    ScanResult source;
    ScanResult destination;

    static EndpointPairScan run(const SyncScanner& scanner, const Side& source, const Side& destination,
                                const ProgressHandler& onProgress, std::stop_token stop);
};

}  // namespace varnel
