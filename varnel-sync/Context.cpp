#include "varnel-sync/Context.hpp"

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

}  // namespace varnel::cli
