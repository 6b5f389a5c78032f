#include "transfer/SyncExecutor.hpp"

#include "archive/CopyEngineArchiveCopier.hpp"
#include "common/Localization.hpp"
#include "scan/POSIXFileError.hpp"
#include "transfer/ProgressSink.hpp"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace varnel {

namespace {

bool isCopy(SyncActionType type) {
    return type == SyncActionType::copyNewFile || type == SyncActionType::replaceChangedFile ||
           type == SyncActionType::createSymlink || type == SyncActionType::replaceSymlink;
}

std::string operationLabel(const SyncAction& action) {
    const bool download = action.sourceEntry && action.sourceEntry->isDataless;
    switch (action.type) {
        case SyncActionType::copyNewFile: return download ? tr("Downloading and copying") : tr("Copying");
        case SyncActionType::replaceChangedFile: return download ? tr("Downloading and updating") : tr("Updating");
        default: return tr("Copying");
    }
}

// The errno behind a failure, where it carries one.
std::optional<int> errnoOf(const SyncError& error) {
    if (const auto* copy = error.as<SyncError::CopyFailed>()) return copy->errnoValue;
    if (const auto* commit = error.as<SyncError::AtomicReplaceFailed>()) return commit->errnoValue;
    if (const auto* download = error.as<SyncError::OnlineOnlyDownloadFailed>()) return download->errnoValue;
    return std::nullopt;
}

std::uint64_t plannedSize(const SyncAction& action) {
    return action.expectedBytes > 0 ? static_cast<std::uint64_t>(action.expectedBytes) : 0;
}

bool isLink(SyncActionType type) {
    return type == SyncActionType::createSymlink || type == SyncActionType::replaceSymlink;
}

// The folder part of a path's text: everything before its last "/".
std::string_view parentOf(const RelativePath& path) {
    const std::string_view value = path.value();
    const auto slash = value.rfind('/');
    return slash == std::string_view::npos ? std::string_view() : value.substr(0, slash);
}

// Small-file copies in one folder taken by one worker at a time, at most.
constexpr std::size_t kLongestFolderRun = 256;

std::ptrdiff_t depthOf(const RelativePath& path) { return std::count(path.value().begin(), path.value().end(), '/'); }

// Thrown from the copy's source check when the file no longer matches the plan.
struct SourceChangedAfterAnalysis {};

// One worker's share of the copies: a medium or large file, or a run of small files of
// one folder; actions [begin, end) of its batch.
struct CopyUnit {
    const TransferScheduler::Batch* batch = nullptr;
    std::size_t begin = 0;
    std::size_t end = 0;
};

// The batches' actions as copy units, in plan order. A small file costs mostly its
// create and rename, both under its folder's lock, so small copies that share a folder
// mostly wait for each other: one worker takes a run of them (a long run is cut, so a
// large flat folder still spreads). Larger files cost their data, which copies share
// out well within one folder.
std::vector<CopyUnit> copyUnitsOf(const std::vector<TransferScheduler::Batch>& batches) {
    std::vector<CopyUnit> units;
    for (const auto& batch : batches) {
        const auto& actions = batch.actions;
        const std::size_t longestRun = batch.sizeClass == TransferScheduler::SizeClass::small ? kLongestFolderRun : 1;
        for (std::size_t i = 0; i < actions.size(); ++i) {
            if (units.empty() || units.back().batch != &batch || i - units.back().begin >= longestRun ||
                parentOf(actions[i].relativePath) != parentOf(actions[i - 1].relativePath)) {
                units.push_back({&batch, i, i});
            }
            units.back().end = i + 1;
        }
    }
    return units;
}

// Hands out the copy units in plan order, each as soon as its size class has room under
// the scheduler's limit. When the next unit has to wait, those behind it wait too, so
// copies still start in plan order; but no batch waits for the whole batch before it
// to end. Photos of mixed sizes change class every two files or so, and such a wait at
// each change left one or two copies running, and in Durable mode one flush at a time.
class CopyAdmission {
public:
    CopyAdmission(const std::vector<CopyUnit>& units, const TransferScheduler& scheduler) : units_(units) {
        int present = 0;
        for (const auto sizeClass : {SizeClass::small, SizeClass::medium, SizeClass::large}) {
            limits_[slot(sizeClass)] = scheduler.concurrency(sizeClass);
            const bool used = std::any_of(units.begin(), units.end(),
                                          [&](const CopyUnit& unit) { return unit.batch->sizeClass == sizeClass; });
            if (used) present += limits_[slot(sizeClass)];
        }
        // Each worker runs one unit at a time, so their number bounds the copies in flight.
        const int bound = std::max(1, std::min(present, scheduler.configuration.maximumConcurrency));
        workers_ = static_cast<int>(std::clamp<std::size_t>(units.size(), 1, static_cast<std::size_t>(bound)));
    }

    int workers() const { return workers_; }

    // The next unit to run, once its class has room; none when every unit is handed out
    // or `stopped` says so. A wait always has a unit of its class in flight to end it.
    template <typename Stopped>
    std::optional<std::size_t> take(const Stopped& stopped) {
        std::unique_lock lock(mutex_);
        while (next_ < units_.size() && !stopped()) {
            const std::size_t sizeClass = slot(units_[next_].batch->sizeClass);
            if (inFlight_[sizeClass] < limits_[sizeClass]) {
                ++inFlight_[sizeClass];
                return next_++;
            }
            roomMade_.wait(lock);
        }
        return std::nullopt;
    }

    void finished(std::size_t unit) {
        {
            const std::lock_guard lock(mutex_);
            --inFlight_[slot(units_[unit].batch->sizeClass)];
        }
        roomMade_.notify_all();
    }

private:
    using SizeClass = TransferScheduler::SizeClass;
    static std::size_t slot(SizeClass sizeClass) { return static_cast<std::size_t>(sizeClass); }

    const std::vector<CopyUnit>& units_;
    std::array<int, 3> limits_{};
    int workers_ = 1;
    std::mutex mutex_;
    std::condition_variable roomMade_;
    std::size_t next_ = 0;
    std::array<int, 3> inFlight_{};
};

}  // namespace

// The state of one execution: the plan's roots, the accumulator and the stop flag.
class SyncExecutor::Run {
public:
    Run(const Collaborators& c, const SyncPlan& plan, const std::optional<RelativePath>& archiveRunFolder,
        CancellationFlag& cancellation, ProgressAggregator& progress)
        : c_(c),
          plan_(plan),
          archiveRunFolder_(archiveRunFolder),
          cancellation_(cancellation),
          progress_(progress),
          accumulator_(c.copyEngine.durabilityMode) {}

    RunAccumulator& accumulator() { return accumulator_; }

    void execute() {
        std::vector<const SyncAction*> typeChangeArchives, folders, copies, archives;
        std::uint64_t plannedBytes = 0;
        int plannedFiles = 0;
        for (const auto& action : plan_.actions) {
            switch (action.type) {
                case SyncActionType::createDirectory: folders.push_back(&action); break;
                case SyncActionType::archiveDestinationItem:
                    (action.reason.is<SyncActionReason::TypeChanged>() ? typeChangeArchives : archives)
                        .push_back(&action);
                    break;
                default:
                    if (isCopy(action.type)) {
                        copies.push_back(&action);
                        plannedBytes += plannedSize(action);
                        ++plannedFiles;
                    }
                    break;
            }
        }
        progress_.setPlannedTotals(plannedBytes, plannedFiles);

        if (!typeChangeArchives.empty()) archive(typeChangeArchives);
        createFolders(folders);
        copyAll(copies);
        if (!stopped()) progress_.setPhase(SyncPhase::verifying);
        if (!archives.empty()) archive(archives);
        finish();
        if (const auto reason = cancellation_.reason()) accumulator_.setFatalError(*reason);
    }

private:
    bool stopped() const { return cancellation_.isCancelled(); }

    void createFolders(const std::vector<const SyncAction*>& folders) {
        if (folders.empty()) return;
        progress_.setPhase(SyncPhase::creatingDirectories);
        for (const SyncAction* action : folders) {
            if (stopped()) return;
            const auto start = c_.clock->nanoseconds();
            try {
                c_.fileSystem->makeDirectory(c_.copyEngine.destinationRoot, action->relativePath, 0700);
                created_.push_back(action);
            } catch (const POSIXFileError& error) {
                if (error.errnoValue() == EEXIST && folderExists(action->relativePath)) {
                    // Someone made it meanwhile; it is a folder, so nothing is lost.
                } else {
                    accumulator_.recordFailure(*action,
                                               SyncError::DirectoryCreationFailed{action->relativePath, error.message()},
                                               secondsSince(start));
                    stopIfAVolumeVanished(error.errnoValue());
                    continue;
                }
            }
            accumulator_.recordSuccess(*action, 0, false, {}, secondsSince(start));
            progress_.recordDirectoryCreated();
        }
    }

    bool folderExists(const RelativePath& path) const {
        try {
            return c_.fileSystem->entry(c_.copyEngine.destinationRoot, path).isDirectory();
        } catch (const POSIXFileError&) {
            return false;
        }
    }

    void copyAll(const std::vector<const SyncAction*>& copies) {
        if (copies.empty() || stopped()) return;
        progress_.setPhase(SyncPhase::copying);
        std::vector<SyncAction> ordered;
        ordered.reserve(copies.size());
        for (const SyncAction* action : copies) ordered.push_back(*action);
        const auto batches = c_.scheduler.batches(std::move(ordered));
        const std::vector<CopyUnit> units = copyUnitsOf(batches);
        CopyAdmission admission(units, c_.scheduler);
        const auto work = [&] {
            while (const auto unit = admission.take([this] { return stopped(); })) {
                runUnit(units[*unit]);
                admission.finished(*unit);
            }
        };
        if (admission.workers() == 1) {
            work();
            return;
        }
        // Threads of their own, as in every other parallel step here: this thread never
        // unwinds past workers that may be waiting for the class place its unit held.
        std::vector<std::jthread> workers;
        workers.reserve(static_cast<std::size_t>(admission.workers()));
        for (int worker = 0; worker < admission.workers(); ++worker) workers.emplace_back(work);
    }

    // In Durable and Maximum mode a run of small files flushes its folder once, after its
    // last rename, instead of once per file: each file's data is still flushed before its
    // rename and its folder after it, and a file is recorded only once both are done.
    void runUnit(const CopyUnit& unit) {
        const bool sharesFolderFlush = unit.batch->sizeClass == TransferScheduler::SizeClass::small &&
                                       c_.copyEngine.durabilityMode != DurabilityMode::fast;
        std::vector<AwaitingFolderFlush> awaiting;
        for (std::size_t i = unit.begin; i < unit.end && !stopped(); ++i) {
            performTransfer(unit.batch->actions[i], sharesFolderFlush ? &awaiting : nullptr);
        }
        // Even after a stop: these files are in place, and their folder is owed its flush.
        flushFolderOf(awaiting);
    }

    // A file renamed into its folder, waiting for that folder's flush to be recorded.
    struct AwaitingFolderFlush {
        const SyncAction* action = nullptr;
        FileResult result;
        double seconds = 0;  // the copy's own time, up to its rename
    };

    // One flush for the folder that all of `awaiting` were renamed into, then their records.
    void flushFolderOf(std::vector<AwaitingFolderFlush>& awaiting) {
        if (awaiting.empty()) return;
        FileCopyEngine::FolderFlushResult folder =
            c_.copyEngine.flushFolder(awaiting.front().action->relativePath.parent());
        for (AwaitingFolderFlush& file : awaiting) {
            c_.copyEngine.settle(file.result, folder);
            folder.flush.seconds = 0;  // the flush's time counts once
            recordCopied(*file.action, file.result, file.seconds);
        }
        awaiting.clear();
    }

    void recordCopied(const SyncAction& action, const FileResult& result, double seconds) {
        accumulator_.recordSuccess(action, result.bytesWritten, result.verified, result.metadataProblems, seconds);
        accumulator_.recordDurability(result.durabilityOutcome, result.flushSeconds, result.durabilityWarning,
                                      action.relativePath);
    }

    enum class OnStop { leaveTheRest, finishAll };

    // Calls `work` for 0 ..< count on up to `workers` threads, each taking the next
    // index, until all are done (or, with leaveTheRest, the run is stopped).
    template <typename Work>
    void inParallel(std::size_t count, int workers, const Work& work, OnStop onStop = OnStop::leaveTheRest) {
        std::atomic<std::size_t> next{0};
        const auto drain = [&] {
            for (std::size_t i = next++; i < count; i = next++) {
                if (onStop == OnStop::leaveTheRest && stopped()) return;
                work(i);
            }
        };
        const auto threadCount = std::min<std::size_t>(static_cast<std::size_t>(std::max(workers, 1)), count);
        if (threadCount <= 1) {
            drain();
            return;
        }
        std::vector<std::jthread> threads;
        threads.reserve(threadCount);
        for (std::size_t w = 0; w < threadCount; ++w) threads.emplace_back(drain);
    }

    // With `awaitingFolderFlush`, a copied file's folder is left for the caller to flush
    // (links flush theirs at once: they are rare).
    void performTransfer(const SyncAction& action, std::vector<AwaitingFolderFlush>* awaitingFolderFlush = nullptr) {
        const auto start = c_.clock->nanoseconds();
        const RelativePath& path = action.relativePath;
        if (!action.sourceEntry) {
            fail(action, SyncError::CopyFailed{path, 0, tr("The plan entry carried no source information.")}, start);
            return;
        }
        // A file is compared with the plan by the copy itself, on the file it opened.
        if (isLink(action.type) && sourceChanged(action)) {
            skipChangedSource(path, plannedSize(action));
            return;
        }
        progress_.beginItem(path, plannedSize(action), operationLabel(action));
        ProgressSink sink(progress_, *c_.clock, path);
        const auto isCancelled = [this] { return stopped(); };
        try {
            FileResult result;
            if (isLink(action.type)) {
                if (!action.sourceEntry->symlinkTarget) {
                    throw SyncError(SyncError::CopyFailed{path, 0, tr("The link target could not be read.")});
                }
                result = c_.copyEngine.writeSymbolicLink(action, isCancelled);
            } else {
                const auto asPlanned = [&](const FileSystemEntry& opened) {
                    if (!unchanged(opened, *action.sourceEntry)) throw SourceChangedAfterAnalysis{};
                };
                result = c_.copyEngine.copyFile(action, [&](std::int64_t bytes) { sink.add(bytes); }, isCancelled,
                                                asPlanned,
                                                awaitingFolderFlush ? FileCopyEngine::FolderFlush::byCaller
                                                                    : FileCopyEngine::FolderFlush::afterEachFile);
            }
            sink.finish();
            if (awaitingFolderFlush && !isLink(action.type)) {
                awaitingFolderFlush->push_back({&action, std::move(result), secondsSince(start)});
            } else {
                recordCopied(action, result, secondsSince(start));
            }
            progress_.finishItem(path, ProgressAggregator::ItemOutcome::completed);
        } catch (const SyncError& error) {
            sink.finish();
            if (error.is<SyncError::Cancelled>()) {
                progress_.finishItem(path, ProgressAggregator::ItemOutcome::skipped);
                return;  // the stop itself is recorded once, at the end
            }
            if (error.is<SyncError::SourceChangedSinceAnalysis>()) {
                accumulator_.recordSkip(path, error.message());
                progress_.finishItem(path, ProgressAggregator::ItemOutcome::skipped);
                return;
            }
            fail(action, error, start);
        } catch (const SourceChangedAfterAnalysis&) {
            sink.finish();
            skipChangedSource(path);
        } catch (const POSIXFileError& error) {
            sink.finish();
            fail(action, SyncError::CopyFailed{path, error.errnoValue(), error.message()}, start);
        }
    }

    bool unchanged(const FileSystemEntry& now, const FileSystemEntry& planned) const {
        return std::holds_alternative<FileComparator::Unchanged>(c_.comparator.compare(now, planned));
    }

    // Compares the source as it is now with the facts the plan was made from.
    bool sourceChanged(const SyncAction& action) const {
        try {
            return !unchanged(c_.fileSystem->entry(c_.copyEngine.sourceRoot, action.relativePath), *action.sourceEntry);
        } catch (const POSIXFileError&) {
            return true;  // gone or unreadable: not what was planned
        }
    }

    // `plannedSize`: for an item that never began.
    void skipChangedSource(const RelativePath& path, std::uint64_t plannedSize = 0) {
        accumulator_.recordSkip(path, tr("The source changed after analysis."));
        progress_.finishItem(path, ProgressAggregator::ItemOutcome::skipped, plannedSize);
    }

    void fail(const SyncAction& action, const SyncError& error, std::uint64_t start) {
        accumulator_.recordFailure(action, error, secondsSince(start));
        progress_.finishItem(action.relativePath, ProgressAggregator::ItemOutcome::failed, plannedSize(action));
        stopIfAVolumeVanished(errnoOf(error));
    }

    // A drive that is shut down, or a FUSE file system whose process died, stays in the
    // mount table, so the volume monitor never hears of it: every operation on it just
    // fails. After a failure that may mean that, ask both volumes whether they still
    // answer, and stop the run as for an unmounted drive when one does not.
    void stopIfAVolumeVanished(std::optional<int> errnoValue) {
        if (stopped() || (errnoValue && !mayMeanVolumeGone(*errnoValue))) return;
        if (c_.fileSystem->volumeFailure(c_.copyEngine.destinationRoot)) {
            cancellation_.stopBecause(
                SyncError::VolumeDisappeared{EndpointRole::destination, volumeName(plan_.destinationVolume)});
        } else if (c_.fileSystem->volumeFailure(c_.copyEngine.sourceRoot)) {
            cancellation_.stopBecause(
                SyncError::VolumeDisappeared{EndpointRole::source, volumeName(plan_.sourceVolume)});
        }
    }

    static std::optional<std::string> volumeName(const std::optional<VolumeIdentity>& volume) {
        return volume ? volume->volumeName : std::nullopt;
    }

    void archive(const std::vector<const SyncAction*>& items) {
        if (stopped()) return;
        progress_.setPhase(SyncPhase::archiving);
        if (!archiveRunFolder_) {
            for (const SyncAction* action : items) {
                accumulator_.recordFailure(
                    *action, SyncError::ArchiveFailed{action->relativePath,
                                                      tr("Could not create the archive folder: no archive folder was "
                                                         "chosen for this run.")});
            }
            return;
        }
        // An item on a file system mounted inside the destination cannot be renamed into
        // the archive; it is copied through the copy engine, then removed.
        const ArchiveMover mover(*c_.fileSystem, std::make_shared<CopyEngineArchiveCopier>(c_.copyEngine));
        for (const SyncAction* action : items) {
            if (stopped()) return;
            const auto start = c_.clock->nanoseconds();
            try {
                const auto moved = mover.move(c_.copyEngine.destinationRoot, action->relativePath, *archiveRunFolder_);
                const std::uint64_t bytes =
                    action->destinationEntry && action->destinationEntry->isRegularFile()
                        ? static_cast<std::uint64_t>(action->destinationEntry->size)
                        : moved.bytesArchived;
                accumulator_.recordSuccess(*action, bytes, false, {}, secondsSince(start));
                progress_.recordItemArchived();
            } catch (const SyncError& error) {
                if (error.is<SyncError::Cancelled>()) return;
                accumulator_.recordFailure(*action, error, secondsSince(start));
                stopIfAVolumeVanished(errnoOf(error));
            }
        }
    }

    // Created folders take their source's permissions and times once their contents are
    // written (writing inside a folder changes its time), then are flushed deepest first.
    // All their metadata is set before the first flush, so one flush can carry many
    // folders' changes to storage; the folders of one depth are flushed concurrently.
    void finish() {
        progress_.setPhase(SyncPhase::finishing);
        const auto& root = c_.copyEngine.destinationRoot;
        std::vector<const SyncAction*> deepestFirst(created_.rbegin(), created_.rend());
        for (const SyncAction* action : deepestFirst) {
            const FileSystemEntry& source = *action->sourceEntry;
            try {
                c_.fileSystem->setPermissions(root, action->relativePath, source.posixPermissions);
                c_.fileSystem->setTimes(root, action->relativePath, source.modificationTime);
            } catch (const POSIXFileError&) {
                accumulator_.addWarning(SyncWarning(SyncWarning::Category::metadataNotPreserved,
                                                    trFormat("Could not preserve {} for “{}”.", "permissions, timestamps",
                                                             action->relativePath.description()),
                                                    action->relativePath));
            }
        }
        if (c_.copyEngine.durabilityMode == DurabilityMode::fast) return;
        const int workers = c_.scheduler.concurrency(TransferScheduler::SizeClass::small);
        for (std::size_t begin = 0; begin < deepestFirst.size();) {
            const auto depth = depthOf(deepestFirst[begin]->relativePath);
            std::size_t end = begin;
            while (end < deepestFirst.size() && depthOf(deepestFirst[end]->relativePath) == depth) ++end;
            // Folders this run made are flushed even after a stop: what they hold stays.
            inParallel(end - begin, workers, [&](std::size_t i) { flushCreatedFolder(*deepestFirst[begin + i]); },
                       OnStop::finishAll);
            begin = end;
        }
    }

    void flushCreatedFolder(const SyncAction& action) {
        bool flushed = true;
        try {
            (void)c_.flusher->flushDirectory(c_.copyEngine.destinationRoot, action.relativePath,
                                             c_.copyEngine.durabilityMode);
        } catch (const DurabilityError&) {
            flushed = false;
        }
        accumulator_.recordDirectoryTreeFlush(action.relativePath, flushed);
    }

    double secondsSince(std::uint64_t start) const {
        return MonotonicClock::secondsBetween(start, c_.clock->nanoseconds());
    }

    const Collaborators& c_;
    const SyncPlan& plan_;
    const std::optional<RelativePath>& archiveRunFolder_;
    CancellationFlag& cancellation_;
    ProgressAggregator& progress_;
    RunAccumulator accumulator_;
    std::vector<const SyncAction*> created_;  // folders this run made, parents first
};

SyncExecutor::SyncExecutor(Collaborators collaborators) : c_(std::move(collaborators)) {}

SyncExecutor::Execution SyncExecutor::execute(const SyncPlan& plan, const Uuid& runID,
                                              const std::optional<RelativePath>& archiveRunFolder,
                                              CancellationFlag& cancellation, ProgressAggregator& progress,
                                              const std::vector<SyncWarning>& extraWarnings) const {
    const Date startedAt = std::chrono::system_clock::now();
    const auto start = c_.clock->nanoseconds();
    Run run(c_, plan, archiveRunFolder, cancellation, progress);
    for (const auto& warning : extraWarnings) run.accumulator().addWarning(warning);
    run.execute();

    RunAccumulator::RunFacts facts;
    facts.runID = runID;
    facts.profileID = plan.profileID;
    facts.planID = plan.id;
    facts.mode = plan.mode;
    facts.startedAt = startedAt;
    facts.finishedAt = std::chrono::system_clock::now();
    facts.durationSeconds = MonotonicClock::secondsBetween(start, c_.clock->nanoseconds());
    facts.peakBytesPerSecond = progress.peakBytesPerSecond();
    facts.verification = c_.copyEngine.verificationMode;
    Execution execution{run.accumulator().makeResult(facts), run.accumulator().actionResults()};
    progress.setPhase(execution.result.outcome == SyncRunOutcome::cancelled ? SyncPhase::cancelled
                      : execution.result.outcome == SyncRunOutcome::failed  ? SyncPhase::failed
                                                                            : SyncPhase::completed);
    return execution;
}

}  // namespace varnel
