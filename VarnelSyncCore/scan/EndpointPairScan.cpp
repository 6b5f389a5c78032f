#include "scan/EndpointPairScan.hpp"

#include <exception>
#include <mutex>
#include <thread>

namespace varnel {

EndpointPairScan EndpointPairScan::run(const SyncScanner& scanner, const Side& source, const Side& destination,
                                       const ProgressHandler& onProgress, std::stop_token stop) {
    const auto report = [&](EndpointRole role, const std::optional<ScanProgress>& progress) {
        if (onProgress) onProgress(role, progress);
    };
    std::mutex reporting;
    bool sourceDone = false;
    std::optional<ScanProgress> heldDestinationProgress;  // latest report made while the source ran

    EndpointPairScan pair;
    std::exception_ptr sourceFailure;
    std::exception_ptr destinationFailure;
    std::stop_source destinationStop;
    // The scan that ends first leaves its processor to the other's read-ahead helpers.
    std::stop_source sourceHelpers, destinationHelpers;
    const bool processorFreed = std::thread::hardware_concurrency() > 1;
    {
        const std::stop_callback forwardStop(stop, [&destinationStop] { destinationStop.request_stop(); });
        report(EndpointRole::source, std::nullopt);
        std::jthread destinationScan([&] {
            try {
                pair.destination = scanner.scan(
                    destination.root, EndpointRole::destination, destination.volumeIsCaseSensitive,
                    [&](const ScanProgress& progress) {
                        const std::lock_guard lock(reporting);
                        if (!sourceDone) {
                            heldDestinationProgress = progress;
                        } else if (!sourceFailure) {
                            // After a failed source the destination scan is only winding
                            // down: its progress would describe a scan that no longer counts.
                            report(EndpointRole::destination, progress);
                        }
                    },
                    destinationStop.get_token(), destinationHelpers.get_token());
            } catch (...) {
                destinationFailure = std::current_exception();
            }
            if (processorFreed) sourceHelpers.request_stop();
        });
        try {
            pair.source = scanner.scan(
                source.root, EndpointRole::source, source.volumeIsCaseSensitive,
                [&](const ScanProgress& progress) {
                    const std::lock_guard lock(reporting);
                    report(EndpointRole::source, progress);
                },
                stop, sourceHelpers.get_token());
        } catch (...) {
            sourceFailure = std::current_exception();
            destinationStop.request_stop();
        }
        if (processorFreed) destinationHelpers.request_stop();
        {
            const std::lock_guard lock(reporting);
            sourceDone = true;
            if (!sourceFailure) {
                report(EndpointRole::destination, std::nullopt);
                if (heldDestinationProgress) report(EndpointRole::destination, heldDestinationProgress);
            }
        }
    }  // joins the destination scan
    if (sourceFailure) std::rethrow_exception(sourceFailure);
    if (destinationFailure) std::rethrow_exception(destinationFailure);
    return pair;
}

}  // namespace varnel
