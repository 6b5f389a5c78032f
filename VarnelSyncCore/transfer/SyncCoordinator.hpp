#pragma once

#include "common/MonotonicClock.hpp"
#include "plan/Confirmation.hpp"
#include "plan/SafetyGate.hpp"
#include "plan/SyncPlan.hpp"
#include "scan/AccessScope.hpp"
#include "scan/BookmarkResolving.hpp"
#include "scan/FileSystemProviding.hpp"
#include "scan/FolderAccessChecking.hpp"
#include "scan/ScanResult.hpp"
#include "scan/VolumeMonitoring.hpp"
#include "logs/RunLogging.hpp"
#include "model/SyncProfile.hpp"
#include "transfer/CancellationFlag.hpp"
#include "transfer/FileFlushing.hpp"
#include "transfer/PartialFileSummary.hpp"
#include "transfer/SyncPhase.hpp"
#include "transfer/SyncRunResult.hpp"
#include "transfer/TransferProgress.hpp"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <stop_token>
#include <string>

namespace varnel {

// The engine's front door: analyse a profile (nothing is written to either folder), then
// synchronise the reviewed result. Every failure is a SyncError. Holds only its
// collaborators, so one coordinator can serve any number of profiles.
class SyncCoordinator {
public:
    struct Collaborators {
        std::shared_ptr<FileSystemProviding> fileSystem;
        std::shared_ptr<BookmarkResolving> bookmarkStore;
        std::shared_ptr<FolderAccessChecking> folderAccess;
        std::shared_ptr<RunLogging> logStore;  // absent: no run log is written
        std::shared_ptr<const MonotonicClock> clock;
        std::shared_ptr<FileFlushing> flusher;
        std::optional<std::string> stagingRoot;  // absent: files are staged beside their final names
        std::shared_ptr<VolumeMonitoring> volumeMonitor;  // absent: vanished volumes are not watched
        std::string homeFolder;  // where the cloud folders live
    };

    // Everything the synchronise step needs, so nothing is recomputed in between.
    struct AnalysisOutcome {
        SyncPlan plan;
        SafetyGate::Decision decision;
        std::optional<BookmarkData> refreshedSourceBookmark;
        std::optional<BookmarkData> refreshedDestinationBookmark;
        VolumeIdentity sourceVolume;
        VolumeIdentity destinationVolume;
        std::shared_ptr<AccessScope> accessScope;  // released by the caller when done
        PartialFileSummary partialFiles;
        // The staging files themselves: synchronising removes them before it writes, so a
        // single rerun after an interrupted one leaves the destination clean.
        std::vector<FileSystemEntry> leftoverStagingFiles;
        std::optional<RelativePath> archiveRunFolder;  // Mirror: fixed now for the whole run
        // The devices the two folders were scanned on; synchronising refuses folders that
        // are now on another (a drive unmounted since, leaving the folder underneath).
        std::optional<std::uint64_t> sourceDeviceID;
        std::optional<std::uint64_t> destinationDeviceID;
        Date analyzedAt;
    };

    struct AnalysisProgress {
        SyncPhase phase = SyncPhase::validating;
        std::optional<ScanProgress> scan;
    };
    using AnalysisProgressHandler = std::function<void(const AnalysisProgress&)>;
    using TransferProgressHandler = std::function<void(const TransferProgress&)>;

    struct Synchronization {
        SyncRunResult result;
        std::optional<SyncError> logFailure;  // the run stands even when its log could not be written
    };

    explicit SyncCoordinator(Collaborators collaborators) : c_(std::move(collaborators)) {}

    AnalysisOutcome analyze(const SyncProfile& profile, const AnalysisProgressHandler& progress = {},
                            std::stop_token stop = {}) const;

    // Refuses, before anything is written: planIsStale when the outcome no longer belongs
    // to the profile's current analysis (another profile, an edit of the profile after
    // the analysis, or a newer analysis recorded in lastAnalysisDate); then the first
    // blocker; then confirmationRequired; then volumeDisappeared when a folder, opened
    // again, is no longer on the device it was scanned on.
    Synchronization synchronize(const AnalysisOutcome& outcome, const SyncProfile& profile,
                                const Confirmation& confirmation, CancellationFlag& cancellation,
                                const TransferProgressHandler& progress = {}) const;

    static bool isStale(const AnalysisOutcome& outcome, const SyncProfile& profile);

private:
    Collaborators c_;
};

}  // namespace varnel
