#include "common/ByteCount.hpp"
#include "common/Localization.hpp"
#include "common/PlatformWording.hpp"
#include "plan/SyncPlanner.hpp"

namespace varnel {

namespace {

namespace words = platform_wording;

std::string toleranceLine() {
    return tr("Modification times are compared with a two-second tolerance, because cloud services store them less "
              "precisely.");
}

PlanNote sourceNote(const SyncPlan& plan, const CloudFolderInfo& cloud) {
    const SyncPlanSummary& s = plan.summary;
    PlanNote note{"cloud-source", trFormat("This source is a cloud folder ({})", cloud.displayName), {toleranceLine()}};
    if (s.filesToDownload > 0) {
        note.lines.push_back(trFormat("{} online-only files ({}) are downloaded by their cloud app while they are "
                                      "copied. They stay downloaded on {} afterwards, until {} or you remove the "
                                      "downloads in {}.",
                                      s.filesToDownload, formatByteCount(s.bytesToDownload), words::kThisComputer,
                                      words::kOperatingSystem, words::kFileBrowser));
    }
    if (s.filesSkippedOnlineOnly > 0) {
        note.lines.push_back(trFormat("{} online-only files ({}) are not downloaded, because this profile skips them. "
                                      "Their copies in the destination stay as they are.",
                                      s.filesSkippedOnlineOnly, formatByteCount(s.bytesSkippedOnlineOnly)));
    }
    if (s.onlineOnlyFilesUnchanged > 0) {
        note.lines.push_back(trFormat("{} online-only files are already up to date. They were compared by size and "
                                      "date, without downloading them.",
                                      s.onlineOnlyFilesUnchanged));
    }
    if (plan.mode == SyncMode::mirror) {
        note.lines.push_back(tr("If its cloud app is signed out or has not finished listing the folder, the source can "
                                "look emptier than it is. Check the Archive count before you synchronize."));
    }
    return note;
}

bool archiveIsInside(const SyncPlan& plan, const CloudFolderInfo& cloud) {
    if (!plan.archiveRoot) return false;
    // Without a known cloud root the archive lies inside the destination, which is inside the cloud folder.
    const std::string root = cloud.rootPath.value_or(plan.destinationRoot);
    return plan.archiveRoot->compare(0, root.size(), root) == 0;
}

PlanNote destinationNote(const SyncPlan& plan, const CloudFolderInfo& cloud) {
    PlanNote note{"cloud-destination", trFormat("This destination is a cloud folder ({})", cloud.displayName),
                  {toleranceLine()}};
    note.lines.push_back(trFormat("Varnel Sync writes to the folder on {}, and its cloud app uploads the changes "
                                  "afterwards. When the run finishes, the files are on {} but not necessarily in the "
                                  "cloud yet: keep the app running until it shows that everything is up to date.",
                                  words::kThisComputer, words::kThisComputer));
    note.lines.push_back(trFormat("Durability applies to the copy on {}'s disk. Varnel Sync cannot see when the upload "
                                  "finishes.",
                                  words::kThisComputer));
    if (plan.stagingDirectory) {
        note.lines.push_back(tr("Each file is prepared outside the cloud folder and moved into it only when it is "
                                "complete, so unfinished copies are never uploaded."));
    } else {
        note.lines.push_back(tr("Each file is prepared beside its final name, so the cloud app may briefly see "
                                "temporary files with “varnelsync-partial” in their names."));
    }
    if (plan.mode == SyncMode::mirror && archiveIsInside(plan, cloud)) {
        note.lines.push_back(tr("Archived items stay in the cloud folder, in .VarnelSync-Archive, so they keep using "
                                "cloud storage and can appear on your other devices and on the web. Remove archive "
                                "runs you no longer need in the Tools window."));
    }
    if (plan.summary.destinationOnlineOnlyFiles > 0) {
        note.lines.push_back(trFormat("{} files in the destination are online-only. They were compared without "
                                      "downloading them, and replacing or archiving them downloads nothing.",
                                      plan.summary.destinationOnlineOnlyFiles));
    }
    return note;
}

}  // namespace

std::vector<PlanNote> cloudFolderNotes(const SyncPlan& plan) {
    std::vector<PlanNote> notes;
    if (plan.sourceCloud) notes.push_back(sourceNote(plan, *plan.sourceCloud));
    if (plan.destinationCloud) notes.push_back(destinationNote(plan, *plan.destinationCloud));
    return notes;
}

}  // namespace varnel
