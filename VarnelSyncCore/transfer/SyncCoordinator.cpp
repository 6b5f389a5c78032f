#include "transfer/SyncCoordinator.hpp"

#include "archive/ArchiveLayout.hpp"
#include "common/Localization.hpp"
#include "plan/SyncPlanner.hpp"
#include "scan/CloudFolderDetection.hpp"
#include "scan/EndpointPairScan.hpp"
#include "scan/EndpointValidator.hpp"
#include "scan/SyncScanner.hpp"
#include "transfer/PartialFileNaming.hpp"
#include "transfer/StagingArea.hpp"
#include "transfer/SyncExecutor.hpp"

namespace varnel {

namespace {

using Category = SyncWarning::Category;

// A vanished mount point stops the run when it holds one of its folders.
bool holds(const std::string& mountPoint, const std::string& folder) {
    if (mountPoint.empty()) return false;
    if (folder == mountPoint) return true;
    const std::string prefix = mountPoint.back() == '/' ? mountPoint : mountPoint + "/";
    return folder.compare(0, prefix.size(), prefix) == 0;
}

// Stops watching when the run ends, whatever way it ends.
class VolumeWatch {
public:
    VolumeWatch(const std::shared_ptr<VolumeMonitoring>& monitor, const SyncPlan& plan,
                const VolumeIdentity& source, const VolumeIdentity& destination, CancellationFlag& cancellation)
        : monitor_(monitor) {
        if (!monitor_) return;
        monitor_->startObserving([&cancellation, plan = &plan, source, destination](const std::string& mountPoint) {
            if (holds(mountPoint, plan->destinationRoot)) {
                cancellation.stopBecause(SyncError::VolumeDisappeared{EndpointRole::destination, destination.volumeName});
            } else if (holds(mountPoint, plan->sourceRoot)) {
                cancellation.stopBecause(SyncError::VolumeDisappeared{EndpointRole::source, source.volumeName});
            }
        });
    }
    ~VolumeWatch() {
        if (monitor_) monitor_->stopObserving();
    }
    VolumeWatch(const VolumeWatch&) = delete;
    VolumeWatch& operator=(const VolumeWatch&) = delete;

private:
    std::shared_ptr<VolumeMonitoring> monitor_;
};

// Removes the staging files an interrupted run left in the destination, as analysis
// found them. An item that has changed since (another inode, now a folder) is left alone;
// a removal that fails is reported, and the run goes on: leftovers never hold user data.
void removeLeftovers(FileSystemProviding& fileSystem, const EndpointRoot& destination,
                     const std::vector<FileSystemEntry>& leftovers, std::vector<SyncWarning>& warnings) {
    for (const auto& found : leftovers) {
        if (!found.isRegularFile() && !found.isSymbolicLink()) continue;
        try {
            const FileSystemEntry now = fileSystem.entry(destination, found.relativePath);
            if (now.inode != found.inode || now.kind != found.kind) continue;
            fileSystem.removeFile(destination, found.relativePath);
        } catch (const std::exception& error) {
            warnings.emplace_back(Category::orphanedPartialFile,
                                  trFormat("The leftover staging file “{}” could not be removed: {}",
                                           found.relativePath.description(), error.what()),
                                  found.relativePath);
        }
    }
}

}  // namespace

SyncCoordinator::AnalysisOutcome SyncCoordinator::analyze(const SyncProfile& profile,
                                                           const AnalysisProgressHandler& progress,
                                                           std::stop_token stop) const {
    const auto report = [&](SyncPhase phase, std::optional<ScanProgress> scan = std::nullopt) {
        if (progress) progress(AnalysisProgress{phase, std::move(scan)});
    };
    if (!profile.sourceBookmark) throw SyncError(SyncError::SourceBookmarkMissing{});
    if (!profile.destinationBookmark) throw SyncError(SyncError::DestinationBookmarkMissing{});

    AnalysisOutcome outcome;
    outcome.accessScope = std::make_shared<AccessScope>();
    const ResolvedBookmark source =
        c_.bookmarkStore->resolve(*profile.sourceBookmark, EndpointRole::source, *outcome.accessScope);
    const ResolvedBookmark destination =
        c_.bookmarkStore->resolve(*profile.destinationBookmark, EndpointRole::destination, *outcome.accessScope);
    outcome.refreshedSourceBookmark = source.refreshedBookmark;
    outcome.refreshedDestinationBookmark = destination.refreshedBookmark;

    report(SyncPhase::validating);
    const EndpointValidator validator(*c_.fileSystem, *c_.folderAccess,
                                      CloudFolderDetection(*c_.fileSystem, c_.homeFolder));
    const ValidatedEndpoints endpoints =
        validator.validate(source.url, destination.url, EndpointExpectations::of(profile));
    outcome.sourceVolume = endpoints.sourceVolume.identity;
    outcome.destinationVolume = endpoints.destinationVolume.identity;

    const SyncScanner scanner(*c_.fileSystem, ExclusionEngine(profile.exclusionRules, profile.hiddenFilePolicy),
                              SyncScanner::kDefaultProgressInterval, SyncScanner::kDefaultReadAhead);
    const EndpointRoot sourceRoot = c_.fileSystem->openRoot(endpoints.canonicalSourceURL);
    const EndpointRoot destinationRoot = c_.fileSystem->openRoot(endpoints.canonicalDestinationURL);
    outcome.sourceDeviceID = c_.fileSystem->entry(sourceRoot, RelativePath()).deviceID;
    outcome.destinationDeviceID = c_.fileSystem->entry(destinationRoot, RelativePath()).deviceID;
    EndpointPairScan scans = EndpointPairScan::run(
        scanner, {sourceRoot, endpoints.sourceVolume.identity.isCaseSensitive},
        {destinationRoot, endpoints.destinationVolume.identity.isCaseSensitive},
        [&](EndpointRole role, const std::optional<ScanProgress>& p) {
            report(role == EndpointRole::source ? SyncPhase::scanningSource : SyncPhase::scanningDestination, p);
        },
        stop);
    const ScanResult& sourceScan = scans.source;
    ScanResult& destinationScan = scans.destination;

    outcome.analyzedAt = std::chrono::floor<std::chrono::seconds>(std::chrono::system_clock::now());
    std::vector<SyncWarning> preflight = endpoints.warnings;
    outcome.partialFiles = PartialFileSummary::of(destinationScan.stagingItems, outcome.analyzedAt);
    outcome.leftoverStagingFiles = destinationScan.stagingItems;
    if (outcome.partialFiles.count > 0) {
        preflight.emplace_back(Category::orphanedPartialFile,
                               outcome.partialFiles.sentence() +
                                   tr(" These are left over from an interrupted run and are not part of your data."));
    }

    report(SyncPhase::planning);
    const bool cloud = endpoints.sourceCloud.has_value() || endpoints.destinationCloud.has_value();
    const FileComparator comparator(
        FileComparator::tolerance(endpoints.sourceVolume, endpoints.destinationVolume, cloud));
    const bool mirror = profile.mode == SyncMode::mirror;
    SyncPlanner::Input input{
        .profileID = profile.id,
        .mode = profile.mode,
        .sourceRoot = endpoints.canonicalSourceURL,
        .destinationRoot = endpoints.canonicalDestinationURL,
        .source = sourceScan,
        .destination = destinationScan,
        .sourceVolume = endpoints.sourceVolume.identity,
        .destinationVolume = endpoints.destinationVolume.identity,
        .isSameVolume = endpoints.isSameVolume,
        .destinationFreeBytes = endpoints.destinationVolume.availableBytes,
        .destinationCaseSensitive = endpoints.destinationVolume.identity.isCaseSensitive,
        .archiveRoot = mirror ? std::optional(ArchiveLayout::archiveRootPath(endpoints.canonicalDestinationURL))
                              : std::nullopt,
        // The archive lies inside the destination folder, so on its volume.
        .archiveIsOnDestinationVolume = true,
        .preflightWarnings = std::move(preflight),
        .onlineOnlyPolicy = profile.onlineOnlyFiles,
        .sourceCloud = endpoints.sourceCloud,
        .destinationCloud = endpoints.destinationCloud,
        .stagingDirectory = endpoints.destinationCloud ? c_.stagingRoot : std::nullopt,
        .sourceFreeBytes = endpoints.sourceVolume.availableBytes,
    };
    outcome.plan = SyncPlanner(comparator).plan(input, stop);
    outcome.plan.createdAt = outcome.analyzedAt;
    if (mirror) outcome.archiveRunFolder = ArchiveLayout::runFolder(profile.id, outcome.analyzedAt);

    report(SyncPhase::awaitingConfirmation);
    outcome.decision = SafetyGate(profile.safetyThresholds).evaluate(outcome.plan);
    return outcome;
}

bool SyncCoordinator::isStale(const AnalysisOutcome& outcome, const SyncProfile& profile) {
    if (outcome.plan.profileID != profile.id) return true;
    if (profile.modifiedAt > outcome.analyzedAt) return true;
    return profile.lastAnalysisDate && *profile.lastAnalysisDate > outcome.analyzedAt;
}

SyncCoordinator::Synchronization SyncCoordinator::synchronize(const AnalysisOutcome& outcome,
                                                              const SyncProfile& profile,
                                                              const Confirmation& confirmation,
                                                              CancellationFlag& cancellation,
                                                              const TransferProgressHandler& progress) const {
    if (isStale(outcome, profile)) throw SyncError(SyncError::PlanIsStale{});
    if (!outcome.decision.blockers.empty()) throw outcome.decision.blockers.front();
    if (!outcome.decision.concerns.empty() && !SafetyGate::isSatisfied(outcome.decision, confirmation)) {
        throw SyncError(SyncError::ConfirmationRequired{});
    }
    const SyncPlan& plan = outcome.plan;
    const Uuid runID = Uuid::random();

    ProgressAggregator aggregator(c_.clock);
    if (progress) aggregator.setSnapshotHandler(progress);

    // Staging outside a cloud destination, on the destination's volume; else beside each file.
    std::vector<SyncWarning> extraWarnings;
    std::optional<EndpointRoot> stagingDirectory;
    std::optional<StagingArea> staging;
    const std::string runTag = PartialFileNaming::runTag(runID);
    if (c_.stagingRoot) {
        staging = StagingArea{*c_.stagingRoot, c_.fileSystem};
        staging->sweepAllExcept(std::nullopt);  // leftovers of interrupted runs
    }
    if (plan.stagingDirectory) {
        try {
            StagingArea area{*plan.stagingDirectory, c_.fileSystem};
            const std::string folder = area.prepareRunFolder(runTag);
            const auto destinationEntry = c_.fileSystem->entryAtPath(plan.destinationRoot);
            if (area.isOnSameVolume(destinationEntry.deviceID)) {
                stagingDirectory = c_.fileSystem->openRoot(folder);
                staging = area;
            } else {
                area.sweep(runTag);
            }
        } catch (const std::exception&) {
            // Falls back to staging beside each file, with the warning below.
        }
        if (!stagingDirectory) {
            extraWarnings.emplace_back(Category::other,
                                       tr("Varnel Sync could not prepare its staging folder outside the cloud folder, "
                                          "so each file was staged beside its final name. The cloud app may have seen "
                                          "these temporary files."));
        }
    }

    FileCopyEngine engine;
    engine.fileSystem = c_.fileSystem;
    engine.verificationMode = profile.verification;
    engine.metadataPolicy = profile.metadataPolicy;
    engine.durabilityMode = profile.durability;
    engine.flusher = c_.flusher;
    engine.runID = runID;
    engine.sourceRoot = c_.fileSystem->openRoot(plan.sourceRoot);
    engine.destinationRoot = c_.fileSystem->openRoot(plan.destinationRoot);
    // A drive unmounted since the analysis leaves the folder underneath its mount point
    // at the same path: never write there.
    const auto onAnotherDevice = [&](const EndpointRoot& root, const std::optional<std::uint64_t>& scanned) {
        return scanned && c_.fileSystem->entry(root, RelativePath()).deviceID != *scanned;
    };
    if (onAnotherDevice(engine.destinationRoot, outcome.destinationDeviceID)) {
        throw SyncError(SyncError::VolumeDisappeared{EndpointRole::destination, outcome.destinationVolume.volumeName});
    }
    if (onAnotherDevice(engine.sourceRoot, outcome.sourceDeviceID)) {
        throw SyncError(SyncError::VolumeDisappeared{EndpointRole::source, outcome.sourceVolume.volumeName});
    }
    engine.stagingDirectory = stagingDirectory;
    removeLeftovers(*c_.fileSystem, engine.destinationRoot, outcome.leftoverStagingFiles, extraWarnings);

    TransferScheduler scheduler;
    scheduler.isSameVolume = plan.isSameVolume;
    scheduler.processorCount = TransferScheduler::detectedProcessorCount();
    const FileComparator comparator(FileComparator::tolerance(
        std::optional(VolumeInfo{outcome.sourceVolume, 0, 0, {}}),
        std::optional(VolumeInfo{outcome.destinationVolume, 0, 0, {}}),
        plan.sourceCloud.has_value() || plan.destinationCloud.has_value()));
    const SyncExecutor executor({c_.fileSystem, engine, scheduler, comparator, c_.clock, c_.flusher});

    SyncExecutor::Execution execution;
    {
        VolumeWatch watch(c_.volumeMonitor, plan, outcome.sourceVolume, outcome.destinationVolume, cancellation);
        execution = executor.execute(plan, runID, outcome.archiveRunFolder, cancellation, aggregator, extraWarnings);
    }
    if (staging) staging->sweep(runTag);

    Synchronization synchronization{std::move(execution.result), std::nullopt};
    if (c_.logStore) {
        synchronization.result.logFileName = "run-" + runID.string() + ".jsonl";
        synchronization.logFailure = c_.logStore->write(RunLogInput{
            profile, &plan, synchronization.result, execution.actionResults, outcome.sourceVolume.volumeName,
            outcome.destinationVolume.volumeName});
        if (synchronization.logFailure) synchronization.result.logFileName.reset();
    }
    return synchronization;
}

}  // namespace varnel
