#include "varnel-sync/Context.hpp"

#include <vector>

namespace varnel::cli {

ApplicationFolders Context::folders() const {
    ApplicationFolders folders = options_.isolated ? ApplicationFolders::isolated(io_.environment)
                                                   : ApplicationFolders::standard(io_.environment);
    if (options_.profilesFile) folders.profilesFile = *options_.profilesFile;
    if (options_.logsFolder) folders.logsFolder = *options_.logsFolder;
    return folders;
}

SyncApplication& Context::application(bool watchVolumes) {
    if (!application_) {
        application_ = std::make_unique<SyncApplication>(SyncApplication::Options{folders(), watchVolumes});
        application_->load();
    }
    return *application_;
}

void Context::keepUntilExit(std::shared_ptr<void> value) {
    if (!io_.processEndsWithCommand) return;
    // Reachable to the end, so leak checkers count it as in use.
    static auto* const kept = new std::vector<std::shared_ptr<void>>();
    kept->push_back(std::move(value));
}

}  // namespace varnel::cli
