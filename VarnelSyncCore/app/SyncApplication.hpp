#pragma once

#include "logs/RunLogStore.hpp"
#include "model/ApplicationFolders.hpp"
#include "model/Preferences.hpp"
#include "model/ProfileStoring.hpp"
#include "transfer/SyncCoordinator.hpp"

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace varnel {

// The application layer both front ends share: the profile list and its store, the
// run-log store, the coordinator, and the bookkeeping after each operation (a
// profile's last-run fields and refreshed folder references, saved at once). No user
// interface here, so the command-line tool and the desktop app can never disagree about
// what a profile does.
class SyncApplication {
public:
    struct Options {
        ApplicationFolders folders;
        bool watchVolumes = true;  // stop a run whose drive is unmounted
    };

    explicit SyncApplication(Options options);
    // For tests and special set-ups: every collaborator supplied.
    SyncApplication(std::shared_ptr<ProfileStoring> store, std::shared_ptr<Preferences> preferences,
                    std::shared_ptr<RunLogStore> logStore, SyncCoordinator::Collaborators collaborators);

    // --- Profiles (loaded once, saved whole after every change) ----------------------
    // Throws SyncError::ProfileStoreFailure when the profiles file cannot be read.
    void load();
    std::vector<SyncProfile> profiles() const;
    // By id (either case) or by exact name; none when nothing or several match a name.
    std::optional<SyncProfile> find(const std::string& nameOrID) const;
    // A new profile from the new-profile preferences, not yet added.
    SyncProfile makeProfile() const;
    // Chooses a folder for a side: its reference, display path and volume identity.
    // Throws SyncError (the folder is missing or not a folder).
    void chooseFolder(SyncProfile& profile, EndpointRole role, const std::string& folder) const;
    void add(SyncProfile profile);
    // Replaces the stored profile with the same id; its modifiedAt becomes now.
    void update(SyncProfile profile);
    void remove(const Uuid& profileID);

    // --- Operations ------------------------------------------------------------------
    // Analyses a saved profile; records lastAnalysisDate and refreshed references.
    SyncCoordinator::AnalysisOutcome analyze(const Uuid& profileID,
                                             const SyncCoordinator::AnalysisProgressHandler& progress = {},
                                             std::stop_token stop = {});
    // Synchronises an analysis; records the run's result on the profile. The access
    // scope of the outcome is released at the end.
    SyncCoordinator::Synchronization synchronize(SyncCoordinator::AnalysisOutcome& outcome,
                                                 const Confirmation& confirmation, CancellationFlag& cancellation,
                                                 const SyncCoordinator::TransferProgressHandler& progress = {});

    RunLogStore& logStore() { return *logStore_; }
    Preferences& preferences() { return *preferences_; }
    FileSystemProviding& fileSystem() { return *collaborators_.fileSystem; }
    const SyncCoordinator& coordinator() const { return coordinator_; }

private:
    SyncApplication(const Options& options, std::shared_ptr<RunLogStore> logStore);
    SyncProfile& stored(const Uuid& profileID);
    void save();

    std::shared_ptr<ProfileStoring> store_;
    std::shared_ptr<Preferences> preferences_;
    std::shared_ptr<RunLogStore> logStore_;
    SyncCoordinator::Collaborators collaborators_;
    SyncCoordinator coordinator_;
    mutable std::mutex mutex_;
    std::vector<SyncProfile> profiles_;
};

}  // namespace varnel
