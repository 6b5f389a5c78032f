#pragma once

#include "archive/ArchiveMover.hpp"
#include "common/MonotonicClock.hpp"
#include "plan/SyncPlan.hpp"
#include "scan/FileComparator.hpp"
#include "transfer/CancellationFlag.hpp"
#include "transfer/FileCopyEngine.hpp"
#include "transfer/ProgressAggregator.hpp"
#include "transfer/RunAccumulator.hpp"
#include "transfer/TransferScheduler.hpp"

#include <memory>
#include <optional>
#include <vector>

namespace varnel {

// Carries out a confirmed plan, in this order:
// 1. Archive moves that free a path for a type change (Mirror), so the new item can
//    take its place.
// 2. Folders (creatingDirectories), parents before children.
// 3. Files and links (copying), in the scheduler's size-class batches, several at once;
//    before each copy the source is compared again with the plan's facts and a
//    difference is a skip with a warning.
// 4. verifying (verification itself happens inside each copy).
// 5. The remaining archive moves, deepest first (archiving, Mirror only).
// 6. finishing: created folders get their source's permissions and times, and in
//    Durable and Maximum mode are flushed, deepest first, once everything inside them
//    is written.
// A stop (user or vanished volume) lets copies in flight discard their staging files,
// starts nothing new, and ends the run as cancelled (or failed, for a volume). A volume
// that stays mounted but stops answering (shut down, its FUSE process gone) is noticed
// by asking both roots after a failure that may mean it (FileSystemProviding's
// volumeFailure), and stops the run in the same way.
class SyncExecutor {
public:
    struct Collaborators {
        std::shared_ptr<FileSystemProviding> fileSystem;
        FileCopyEngine copyEngine;  // configured for this run's roots and settings
        TransferScheduler scheduler;
        FileComparator comparator;
        std::shared_ptr<const MonotonicClock> clock;
        std::shared_ptr<FileFlushing> flusher;
    };

    struct Execution {
        SyncRunResult result;
        std::vector<ActionResult> actionResults;  // for the run log
    };

    explicit SyncExecutor(Collaborators collaborators);

    // `archiveRunFolder` is the Mirror run folder fixed at analysis time (below the
    // destination root). `extraWarnings` are added to the result (staging fallback...).
    Execution execute(const SyncPlan& plan, const Uuid& runID, const std::optional<RelativePath>& archiveRunFolder,
                      CancellationFlag& cancellation, ProgressAggregator& progress,
                      const std::vector<SyncWarning>& extraWarnings = {}) const;

private:
    class Run;
    Collaborators c_;
};

}  // namespace varnel
