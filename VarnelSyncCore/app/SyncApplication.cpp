#include "app/SyncApplication.hpp"

#include "model/JSONProfileStore.hpp"
#include "platform/POSIXFolderAccess.hpp"
#include "platform/SecurityScopedBookmarkStore.hpp"
#include "platform/WorkspaceVolumeMonitor.hpp"
#include "scan/CloudFolderDetection.hpp"
#include "scan/EndpointValidator.hpp"
#include "scan/POSIXFileError.hpp"
#include "scan/RealFileSystem.hpp"
#include "transfer/POSIXFileFlusher.hpp"
#include "transfer/StagingArea.hpp"

#include <algorithm>

namespace varnel {

namespace {

SyncCoordinator::Collaborators realCollaborators(const SyncApplication::Options& options,
                                                 const std::shared_ptr<RunLogStore>& logStore) {
    auto fileSystem = std::make_shared<RealFileSystem>(true);
    auto clock = std::make_shared<SteadyMonotonicClock>();
    SyncCoordinator::Collaborators c;
    c.fileSystem = fileSystem;
    c.bookmarkStore = std::make_shared<SecurityScopedBookmarkStore>(*fileSystem);
    c.folderAccess = std::make_shared<POSIXFolderAccess>();
    c.logStore = logStore;
    c.clock = clock;
    c.flusher = std::make_shared<POSIXFileFlusher>(clock);
    c.stagingRoot = (options.folders.temporaryFolder / StagingArea::folderName).string();
    if (options.watchVolumes) c.volumeMonitor = std::make_shared<WorkspaceVolumeMonitor>();
    c.homeFolder = CloudFolderDetection::currentUserHomeFolder();
    return c;
}

std::string lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
    return text;
}

}  // namespace

SyncApplication::SyncApplication(Options options)
    : SyncApplication(options, std::make_shared<RunLogStore>(options.folders.logsFolder)) {}

// One log store serves both the coordinator (writing) and the front ends (listing).
SyncApplication::SyncApplication(const Options& options, std::shared_ptr<RunLogStore> logStore)
    : SyncApplication(std::make_shared<JSONProfileStore>(options.folders.profilesFile),
                      std::make_shared<JSONFilePreferences>(options.folders.preferencesFile), logStore,
                      realCollaborators(options, logStore)) {}

SyncApplication::SyncApplication(std::shared_ptr<ProfileStoring> store, std::shared_ptr<Preferences> preferences,
                                 std::shared_ptr<RunLogStore> logStore, SyncCoordinator::Collaborators collaborators)
    : store_(std::move(store)),
      preferences_(std::move(preferences)),
      logStore_(std::move(logStore)),
      collaborators_(std::move(collaborators)),
      coordinator_(collaborators_) {}

void SyncApplication::load() {
    auto loaded = store_->load();
    std::lock_guard lock(mutex_);
    profiles_ = std::move(loaded);
}

std::vector<SyncProfile> SyncApplication::profiles() const {
    std::lock_guard lock(mutex_);
    return profiles_;
}

std::optional<SyncProfile> SyncApplication::find(const std::string& nameOrID) const {
    std::lock_guard lock(mutex_);
    if (const auto id = Uuid::parse(nameOrID)) {
        for (const auto& profile : profiles_) {
            if (profile.id == *id) return profile;
        }
    }
    std::optional<SyncProfile> found;
    for (const auto& profile : profiles_) {
        if (profile.name != nameOrID) continue;
        if (found) return std::nullopt;  // ambiguous: the caller asks for the id
        found = profile;
    }
    if (found) return found;
    // A unique case-insensitive match is what a user typing a name means.
    for (const auto& profile : profiles_) {
        if (lower(profile.name) != lower(nameOrID)) continue;
        if (found) return std::nullopt;
        found = profile;
    }
    return found;
}

SyncProfile SyncApplication::makeProfile() const {
    return makeNewProfile(*preferences_);
}

void SyncApplication::chooseFolder(SyncProfile& profile, EndpointRole role, const std::string& folder) const {
    FileSystemProviding& fileSystem = *collaborators_.fileSystem;
    std::string canonical;
    try {
        canonical = fileSystem.canonicalPath(folder);
    } catch (const POSIXFileError&) {
        throw SyncError(SyncError::EndpointNotFound{role, folder});
    }
    bool isFolder = false;
    try {
        // entryAtPath does not follow a final link; the canonical path has none.
        isFolder = fileSystem.entryAtPath(canonical).isDirectory();
    } catch (const POSIXFileError&) {
        throw SyncError(SyncError::EndpointNotFound{role, folder});
    }
    if (!isFolder) throw SyncError(SyncError::EndpointNotADirectory{role, folder});
    const EndpointValidator validator(fileSystem, *collaborators_.folderAccess,
                                      CloudFolderDetection(fileSystem, collaborators_.homeFolder));
    const VolumeIdentity identity = validator.identityOf(canonical);
    const BookmarkData bookmark = collaborators_.bookmarkStore->makeBookmark(canonical);
    if (role == EndpointRole::source) {
        profile.sourceBookmark = bookmark;
        profile.sourceDisplayPath = canonical;
        profile.sourceVolume = identity;
    } else {
        profile.destinationBookmark = bookmark;
        profile.destinationDisplayPath = canonical;
        profile.destinationVolume = identity;
    }
}

void SyncApplication::add(SyncProfile profile) {
    {
        std::lock_guard lock(mutex_);
        profiles_.push_back(std::move(profile));
    }
    save();
}

void SyncApplication::update(SyncProfile profile) {
    {
        std::lock_guard lock(mutex_);
        profile.modifiedAt = std::chrono::floor<std::chrono::seconds>(std::chrono::system_clock::now());
        stored(profile.id) = std::move(profile);
    }
    save();
}

void SyncApplication::remove(const Uuid& profileID) {
    {
        std::lock_guard lock(mutex_);
        std::erase_if(profiles_, [&](const SyncProfile& p) { return p.id == profileID; });
    }
    save();
}

SyncProfile& SyncApplication::stored(const Uuid& profileID) {
    for (auto& profile : profiles_) {
        if (profile.id == profileID) return profile;
    }
    throw SyncError(SyncError::ProfileStoreFailure{"No profile has the id " + profileID.string() + "."});
}

void SyncApplication::save() {
    std::vector<SyncProfile> snapshot = profiles();
    store_->save(snapshot);
}

SyncCoordinator::AnalysisOutcome SyncApplication::analyze(const Uuid& profileID,
                                                           const SyncCoordinator::AnalysisProgressHandler& progress,
                                                           std::stop_token stop) {
    SyncProfile profile;
    {
        std::lock_guard lock(mutex_);
        profile = stored(profileID);
    }
    auto outcome = coordinator_.analyze(profile, progress, std::move(stop));
    {
        std::lock_guard lock(mutex_);
        SyncProfile& current = stored(profileID);
        current.lastAnalysisDate = outcome.analyzedAt;
        if (outcome.refreshedSourceBookmark) current.sourceBookmark = outcome.refreshedSourceBookmark;
        if (outcome.refreshedDestinationBookmark) current.destinationBookmark = outcome.refreshedDestinationBookmark;
    }
    save();
    return outcome;
}

SyncCoordinator::Synchronization SyncApplication::synchronize(SyncCoordinator::AnalysisOutcome& outcome,
                                                              const Confirmation& confirmation,
                                                              CancellationFlag& cancellation,
                                                              const SyncCoordinator::TransferProgressHandler& progress) {
    SyncProfile profile;
    {
        std::lock_guard lock(mutex_);
        profile = stored(outcome.plan.profileID);
    }
    struct ReleaseScope {
        AccessScope* scope;
        ~ReleaseScope() {
            if (scope) scope->release();
        }
    } releaseAtEnd{outcome.accessScope.get()};
    auto synchronization = coordinator_.synchronize(outcome, profile, confirmation, cancellation, progress);
    const SyncRunResult& result = synchronization.result;
    {
        std::lock_guard lock(mutex_);
        SyncProfile& current = stored(profile.id);
        current.lastSyncDate = result.finishedAt;
        current.lastResult = result.outcome;
        current.lastBytesTransferred = static_cast<std::int64_t>(result.bytesTransferred);
        current.lastFilesTransferred = result.filesCopied + result.filesUpdated;
        current.lastRunID = result.id;
    }
    save();
    return synchronization;
}

}  // namespace varnel
