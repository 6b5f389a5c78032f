#include "support/EngineHarness.hpp"

#include "logs/RunLogStore.hpp"
#include "model/JSONProfileStore.hpp"
#include "platform/POSIXFolderAccess.hpp"
#include "platform/SecurityScopedBookmarkStore.hpp"
#include "platform/WorkspaceVolumeMonitor.hpp"
#include "plan/SafetyGate.hpp"
#include "scan/RealFileSystem.hpp"
#include "transfer/POSIXFileFlusher.hpp"
#include "transfer/StagingArea.hpp"

namespace varnel::testing {

namespace fs = std::filesystem;

EngineHarness::EngineHarness(const fs::path& work, bool watchVolumes) {
    fs::create_directories(work);
    auto real = std::make_shared<RealFileSystem>(true);
    fileSystem = std::make_shared<FaultInjectingFileSystem>(real);
    fileSystem->checksVolumes = watchVolumes;
    auto clock = std::make_shared<SteadyMonotonicClock>();
    flusher = std::make_shared<FaultInjectingFlusher>(std::make_shared<POSIXFileFlusher>(clock));
    auto logStore = std::make_shared<RunLogStore>(work / "logs");
    SyncCoordinator::Collaborators c;
    c.fileSystem = fileSystem;
    c.bookmarkStore = std::make_shared<SecurityScopedBookmarkStore>(*fileSystem);
    c.folderAccess = std::make_shared<POSIXFolderAccess>();
    c.logStore = logStore;
    c.clock = clock;
    c.flusher = flusher;
    c.stagingRoot = (work / "tmp" / StagingArea::folderName).string();
    c.homeFolder = (work / "home").string();
    if (watchVolumes) c.volumeMonitor = std::make_shared<WorkspaceVolumeMonitor>();
    application = std::make_unique<SyncApplication>(std::make_shared<JSONProfileStore>(work / "profiles.json"),
                                                    std::make_shared<JSONFilePreferences>(work / "preferences.json"),
                                                    logStore, c);
    application->load();
}

Uuid EngineHarness::addProfile(const fs::path& source, const fs::path& destination, SyncMode mode,
                               DurabilityMode durability, VerificationMode verification) {
    SyncProfile profile = application->makeProfile();
    profile.name = "Reliability " + std::to_string(application->profiles().size() + 1);
    profile.mode = mode;
    profile.durability = durability;
    profile.verification = verification;
    application->chooseFolder(profile, EndpointRole::source, source.string());
    application->chooseFolder(profile, EndpointRole::destination, destination.string());
    application->add(profile);
    return profile.id;
}

namespace {

Confirmation confirmingAll(const SyncCoordinator::AnalysisOutcome& outcome) {
    Confirmation confirmation;
    for (const auto& concern : outcome.decision.concerns) confirmation.acknowledgedConcernIDs.insert(concern.id);
    confirmation.typedPhrase = std::string(SafetyGate::kConfirmationWord);
    return confirmation;
}

}  // namespace

SyncCoordinator::Synchronization EngineHarness::sync(const Uuid& profileID) {
    auto outcome = application->analyze(profileID);
    CancellationFlag cancellation;
    return application->synchronize(outcome, confirmingAll(outcome), cancellation);
}

SyncRunResult EngineHarness::synchronize(SyncCoordinator::AnalysisOutcome& outcome, CancellationFlag& cancellation,
                                         const SyncCoordinator::TransferProgressHandler& progress) {
    return application->synchronize(outcome, confirmingAll(outcome), cancellation, progress).result;
}

std::string messagesOf(const SyncRunResult& result, const SyncPlan* plan) {
    std::string text;
    if (plan != nullptr) {
        for (const auto& warning : plan->warnings) text += "plan warning: " + warning.message + "\n";
    }
    for (const auto& warning : result.warnings) text += "warning: " + warning.message + "\n";
    for (const auto& error : result.errors) text += error.code + ": " + error.message + "\n";
    return text;
}

}  // namespace varnel::testing
