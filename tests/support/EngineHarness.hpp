#pragma once

#include "app/SyncApplication.hpp"
#include "support/FaultInjectingFileSystem.hpp"
#include "support/FaultInjectingFlusher.hpp"

#include <filesystem>
#include <memory>
#include <optional>

namespace varnel::testing {

// The whole engine in this process, on real folders, through the same application
// layer the front ends use, with the fault-injecting file system and flusher around the
// real ones. Profiles, preferences, logs and the staging root live in `work`:
//
//     EngineHarness engine(temporary / "app");
//     const Uuid id = engine.addProfile(source, destination, SyncMode::mirror, DurabilityMode::durable);
//     engine.fileSystem->failCall("rename", ENOSPC);
//     const SyncRunResult result = engine.sync(id).result;
class EngineHarness {
public:
    // `watchVolumes`: with the real mount-table monitor and the file system's own
    // vanished-volume check, which stop a run whose drive goes.
    explicit EngineHarness(const std::filesystem::path& work, bool watchVolumes = false);

    // A saved profile from the new-profile preferences with the given options.
    Uuid addProfile(const std::filesystem::path& source, const std::filesystem::path& destination, SyncMode mode,
                    DurabilityMode durability = DurabilityMode::fast,
                    VerificationMode verification = VerificationMode::none);
    // Analyses the profile and synchronises with every concern acknowledged and the
    // confirmation word typed, as `sync --acknowledge-all --confirm ARCHIVE` does.
    SyncCoordinator::Synchronization sync(const Uuid& profileID);
    // The second half of that, for an analysis made before.
    SyncRunResult synchronize(SyncCoordinator::AnalysisOutcome& outcome, CancellationFlag& cancellation,
                              const SyncCoordinator::TransferProgressHandler& progress = {});

    std::shared_ptr<FaultInjectingFileSystem> fileSystem;
    std::shared_ptr<FaultInjectingFlusher> flusher;
    std::unique_ptr<SyncApplication> application;
};

// Every warning and error message of a run (and of its plan, when given), one per line.
std::string messagesOf(const SyncRunResult& result, const SyncPlan* plan = nullptr);

}  // namespace varnel::testing
