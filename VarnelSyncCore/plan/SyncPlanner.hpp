#pragma once

#include "common/Date.hpp"
#include "common/Uuid.hpp"
#include "model/SyncOptions.hpp"
#include "plan/SyncPlan.hpp"
#include "plan/SyncWarning.hpp"
#include "scan/CloudFolderInfo.hpp"
#include "scan/FileComparator.hpp"
#include "scan/ScanResult.hpp"
#include "scan/VolumeIdentity.hpp"

#include <cstdint>
#include <optional>
#include <stop_token>
#include <string>
#include <vector>

namespace varnel {

// Turns the scans of a profile's two endpoints into an ordered plan. It only reads its
// input; nothing is written.
//
// Choices the plan format leaves open, decided here:
// - A folder present on both sides gets no row (nothing happens to it).
// - Hard links, sparse files and links pointing outside the source are planned like any
//   other file or link, with their ordinary reason; the scanner's warnings, which the
//   plan carries, explain them. No extra rows, so the counters count actions only.
// - An unchanged link is listed as preserveUnchangedFile, like an unchanged file.
// - A source item whose name collides with an earlier one (on a destination that cannot
//   tell them apart) is listed as a `warning` row; what lies below it is not planned.
// - Source items and folders that could not be read become `error` rows
//   (permissionDenied for EACCES, else scanFailure). Destination read failures stay
//   warnings: the exclusive commit of new files never overwrites an unseen item.
// - The unreadable-source-folder warning is added in Mirror mode, the only mode that
//   could otherwise remove something.
class SyncPlanner {
public:
    struct Input {
        Uuid profileID;
        SyncMode mode = SyncMode::update;
        std::string sourceRoot;
        std::string destinationRoot;
        const ScanResult& source;
        // Planning lets matched destination entries share the source's path text
        // (ScanResult::sharePathText), so the destination scan's copies go early.
        ScanResult& destination;
        std::optional<VolumeIdentity> sourceVolume{};
        std::optional<VolumeIdentity> destinationVolume{};
        bool isSameVolume = false;
        std::int64_t destinationFreeBytes = 0;
        bool destinationCaseSensitive = true;
        std::optional<std::string> archiveRoot{};
        bool archiveIsOnDestinationVolume = true;
        std::vector<SyncWarning> preflightWarnings{};
        OnlineOnlyPolicy onlineOnlyPolicy = OnlineOnlyPolicy::download;
        std::optional<CloudFolderInfo> sourceCloud{};
        std::optional<CloudFolderInfo> destinationCloud{};
        std::optional<std::string> stagingDirectory{};
        std::optional<std::int64_t> sourceFreeBytes{};
    };

    explicit SyncPlanner(FileComparator comparator, const Clock& clock = SystemClock::shared())
        : comparator_(comparator), clock_(clock) {}

    // Throws SyncError::Cancelled (no partial plan) when `stop` is requested; checked
    // before every source entry.
    SyncPlan plan(const Input& input, std::stop_token stop = {}) const;

private:
    FileComparator comparator_;
    const Clock& clock_;
};

// Sorts actions into the executor's order: folder creations, then file and link actions,
// then archive moves, then everything else. Lists one, two and four are shallow-first
// (fewer components, then ascending path text); archives are deepest-first.
void sortActionsForExecution(std::vector<SyncAction>& creations, std::vector<SyncAction>& files,
                             std::vector<SyncAction>& archives, std::vector<SyncAction>& others,
                             std::vector<SyncAction>& into);

// The information boxes for cloud-folder endpoints of a finished plan.
std::vector<PlanNote> cloudFolderNotes(const SyncPlan& plan);

}  // namespace varnel
