#include "model/ApplicationFolders.hpp"

#include "common/Localization.hpp"

#include <pwd.h>
#include <unistd.h>

#include <cstdlib>
#include <stdexcept>
#include <vector>

namespace varnel {

namespace {

namespace fs = std::filesystem;

constexpr const char* kApplicationFolderName = "VarnelSync";

// Relative values are ignored, as the XDG rules ask: they would depend on the current folder.
std::optional<fs::path> absoluteVariable(const EnvironmentLookup& environment, const std::string& name) {
    const auto value = environment(name);
    if (!value || value->empty() || !fs::path(*value).is_absolute()) return std::nullopt;
    return fs::path(*value);
}

fs::path xdgFolder(const EnvironmentLookup& environment, const std::string& variable, const char* homeRelative) {
    if (auto folder = absoluteVariable(environment, variable)) return *folder;
    const auto home = absoluteVariable(environment, "HOME");
    if (!home) {
        throw std::runtime_error(trFormat(
            "The folder for the application’s data is unknown because neither {} nor HOME is set.", variable));
    }
    return *home / homeRelative;
}

std::optional<std::string> homeFromPasswordDatabase() {
    long size = ::sysconf(_SC_GETPW_R_SIZE_MAX);
    std::vector<char> buffer(size > 0 ? static_cast<std::size_t>(size) : 16384);
    passwd entry{};
    passwd* result = nullptr;
    if (::getpwuid_r(::getuid(), &entry, buffer.data(), buffer.size(), &result) != 0 || result == nullptr ||
        result->pw_dir == nullptr) {
        return std::nullopt;
    }
    return std::string(result->pw_dir);
}

}  // namespace

EnvironmentLookup processEnvironment() {
    return [](const std::string& name) -> std::optional<std::string> {
        if (const char* value = std::getenv(name.c_str())) return std::string(value);
        if (name == "HOME") return homeFromPasswordDatabase();
        return std::nullopt;
    };
}

fs::path temporaryFolderOf(const EnvironmentLookup& environment) {
    return absoluteVariable(environment, "TMPDIR").value_or(fs::path("/tmp"));
}

ApplicationFolders ApplicationFolders::standard(const EnvironmentLookup& environment) {
    ApplicationFolders folders;
    folders.applicationSupport = xdgFolder(environment, "XDG_DATA_HOME", ".local/share") / kApplicationFolderName;
    folders.profilesFile = folders.applicationSupport / "profiles.json";
    folders.preferencesFile = folders.applicationSupport / "preferences.json";
    folders.logsFolder = xdgFolder(environment, "XDG_STATE_HOME", ".local/state") / kApplicationFolderName / "Logs";
    folders.temporaryFolder = temporaryFolderOf(environment);
    return folders;
}

ApplicationFolders ApplicationFolders::isolated(const EnvironmentLookup& environment) {
    ApplicationFolders folders;
    folders.temporaryFolder = temporaryFolderOf(environment);
    folders.applicationSupport = folders.temporaryFolder;
    folders.profilesFile = folders.temporaryFolder / "varnelsync-profiles.json";
    folders.preferencesFile = folders.temporaryFolder / "varnelsync-preferences.json";
    folders.logsFolder = folders.temporaryFolder / "VarnelSyncLogs";
    return folders;
}

}  // namespace varnel
