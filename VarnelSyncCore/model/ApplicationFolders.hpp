#pragma once
// Where the application keeps its own files, following the XDG base-directory rules.
// The environment is passed in, so tests never look at the real home folder.

#include <filesystem>
#include <functional>
#include <optional>
#include <string>

namespace varnel {

// The value of an environment variable, or none when it is not set.
using EnvironmentLookup = std::function<std::optional<std::string>(const std::string& name)>;

// The process's environment. HOME, when unset, comes from the password database.
EnvironmentLookup processEnvironment();

struct ApplicationFolders {
    std::filesystem::path applicationSupport;  // the application's own data folder
    std::filesystem::path profilesFile;
    std::filesystem::path preferencesFile;
    std::filesystem::path logsFolder;          // run logs and reports
    std::filesystem::path temporaryFolder;

    // $XDG_DATA_HOME/VarnelSync (default ~/.local/share/VarnelSync) holding "profiles.json"
    // and "preferences.json"; logs in $XDG_STATE_HOME/VarnelSync/Logs (default
    // ~/.local/state/VarnelSync/Logs). Throws std::runtime_error when a folder is needed
    // from HOME and HOME is not known.
    static ApplicationFolders standard(const EnvironmentLookup& environment = processEnvironment());

    // The isolated launch mode: everything in the temporary folder ("varnelsync-profiles.json",
    // "varnelsync-preferences.json", "VarnelSyncLogs"), so such runs never touch the user's data.
    static ApplicationFolders isolated(const EnvironmentLookup& environment = processEnvironment());

    friend bool operator==(const ApplicationFolders&, const ApplicationFolders&) = default;
};

// $TMPDIR when it is an absolute path, else /tmp.
std::filesystem::path temporaryFolderOf(const EnvironmentLookup& environment);

}  // namespace varnel
