#pragma once

#include "common/Date.hpp"
#include "common/Uuid.hpp"
#include "model/RelativePath.hpp"

#include <optional>
#include <string>
#include <string_view>

namespace varnel {

// Where Mirror mode puts what it takes out of the destination:
//
//     <destination>/.VarnelSync-Archive/<PROFILE-UUID>/<yyyy-MM-dd-HHmmss>/<relative path>
//
// one profile folder per profile (its id in upper case) and one run folder per run that
// archived something, named by the moment its analysis ran. Each archived item keeps
// its relative path below the run folder, so recovering it means moving it back.
struct ArchiveLayout {
    static constexpr const char* kArchiveFolderName = ".VarnelSync-Archive";
    // ICU pattern of run folder names, formatted with the fixed locale en_US_POSIX so
    // the user's language and calendar never change the digits.
    static constexpr const char* kRunFolderPattern = "yyyy-MM-dd-HHmmss";

    // The archive root below the destination root.
    static RelativePath archiveRoot();
    // The archive root as an absolute path, for the plan ("<destination>/.VarnelSync-Archive").
    static std::string archiveRootPath(const std::string& destinationRootPath);
    static RelativePath profileFolder(const Uuid& profileID);

    // The run folder name of an analysis started at `date`: the wall-clock time in the
    // machine's current time zone (or the named zone, for tests), to the second. Two
    // analyses started within one second share a name, and so a folder.
    static std::string runFolderName(Date date, const std::optional<std::string>& timeZoneIdentifier = std::nullopt);
    // The run folder below the destination root. Computed once, when the analysis runs,
    // so everything the following synchronisation archives lands in one folder however
    // long it takes.
    static RelativePath runFolder(const Uuid& profileID, Date analysisDate,
                                  const std::optional<std::string>& timeZoneIdentifier = std::nullopt);
    // Reads a run folder name back; none for anything that is not exactly such a name
    // ("old-stuff", "2025-3-7-141502").
    static std::optional<Date> parseRunFolderName(std::string_view name,
                                                  const std::optional<std::string>& timeZoneIdentifier = std::nullopt);

    // Where `item` (a path below the destination root) lies once archived by the run.
    static RelativePath archivedPath(const RelativePath& runFolder, const RelativePath& item);
    // Whether the path is the archive root or lies below it: such items are never
    // synchronised or archived themselves.
    static bool isInsideArchive(const RelativePath& path);
};

}  // namespace varnel
