#include "archive/ArchiveLayout.hpp"

#include "scan/SyncScanner.hpp"

#include <unicode/locid.h>
#include <unicode/smpdtfmt.h>
#include <unicode/timezone.h>
#include <unicode/unistr.h>

#include <chrono>
#include <cmath>
#include <memory>
#include <stdexcept>

namespace varnel {

// The scanner skips the archive by this name; the two must never drift apart.
static_assert(std::string_view(SyncScanner::kArchiveFolderName) == std::string_view(ArchiveLayout::kArchiveFolderName));

namespace {

// The zone to format in: detected afresh each time, so a change of the machine's time
// zone while the application runs is honoured by the next analysis.
std::unique_ptr<icu::TimeZone> makeZone(const std::optional<std::string>& identifier) {
    if (!identifier) return std::unique_ptr<icu::TimeZone>(icu::TimeZone::detectHostTimeZone());
    std::unique_ptr<icu::TimeZone> zone(icu::TimeZone::createTimeZone(icu::UnicodeString::fromUTF8(*identifier)));
    icu::UnicodeString id;
    if (!zone || zone->getID(id) == icu::UnicodeString(UCAL_UNKNOWN_ZONE_ID)) {
        throw std::invalid_argument("Unknown time zone: " + *identifier);
    }
    return zone;
}

// A fresh formatter per call: ICU formatters must not be shared between threads, and
// making one costs far less than the file operations around it.
std::unique_ptr<icu::SimpleDateFormat> makeFormatter(const std::optional<std::string>& timeZoneIdentifier) {
    UErrorCode status = U_ZERO_ERROR;
    auto formatter = std::make_unique<icu::SimpleDateFormat>(icu::UnicodeString(ArchiveLayout::kRunFolderPattern),
                                                             icu::Locale("en_US_POSIX"), status);
    if (U_FAILURE(status)) throw std::runtime_error("ICU date formatter unavailable: " + std::string(u_errorName(status)));
    formatter->adoptTimeZone(makeZone(timeZoneIdentifier).release());
    formatter->setLenient(false);
    return formatter;
}

std::string format(icu::SimpleDateFormat& formatter, Date date) {
    // Whole seconds, rounded down, as the name shows them.
    const auto seconds = std::chrono::floor<std::chrono::seconds>(date.time_since_epoch()).count();
    icu::UnicodeString text;
    formatter.format(static_cast<UDate>(seconds) * 1000.0, text);
    std::string result;
    text.toUTF8String(result);
    return result;
}

}  // namespace

RelativePath ArchiveLayout::archiveRoot() {
    return *RelativePath::fromString(kArchiveFolderName);
}

std::string ArchiveLayout::archiveRootPath(const std::string& destinationRootPath) {
    if (!destinationRootPath.empty() && destinationRootPath.back() == '/') {
        return destinationRootPath + kArchiveFolderName;
    }
    return destinationRootPath + "/" + kArchiveFolderName;
}

RelativePath ArchiveLayout::profileFolder(const Uuid& profileID) {
    return *archiveRoot().appending(profileID.string());
}

std::string ArchiveLayout::runFolderName(Date date, const std::optional<std::string>& timeZoneIdentifier) {
    return format(*makeFormatter(timeZoneIdentifier), date);
}

RelativePath ArchiveLayout::runFolder(const Uuid& profileID, Date analysisDate,
                                      const std::optional<std::string>& timeZoneIdentifier) {
    return *profileFolder(profileID).appending(runFolderName(analysisDate, timeZoneIdentifier));
}

std::optional<Date> ArchiveLayout::parseRunFolderName(std::string_view name,
                                                      const std::optional<std::string>& timeZoneIdentifier) {
    auto formatter = makeFormatter(timeZoneIdentifier);
    const icu::UnicodeString text = icu::UnicodeString::fromUTF8(icu::StringPiece(name.data(),
                                                                                  static_cast<int32_t>(name.size())));
    icu::ParsePosition position(0);
    const UDate parsed = formatter->parse(text, position);
    if (position.getErrorIndex() >= 0 || position.getIndex() != text.length() || !std::isfinite(parsed)) {
        return std::nullopt;
    }
    const Date date{std::chrono::duration_cast<Date::duration>(
        std::chrono::seconds(static_cast<std::int64_t>(std::floor(parsed / 1000.0))))};
    // Only the exact form counts: "2025-3-7-141502" parses but is not a run folder name.
    if (format(*formatter, date) != name) return std::nullopt;
    return date;
}

RelativePath ArchiveLayout::archivedPath(const RelativePath& runFolder, const RelativePath& item) {
    if (item.isRoot()) return runFolder;
    return *RelativePath::fromString(std::string(runFolder.value()) + "/" + std::string(item.value()));
}

bool ArchiveLayout::isInsideArchive(const RelativePath& path) {
    const RelativePath root = archiveRoot();
    return path == root || root.isAncestorOf(path);
}

}  // namespace varnel
