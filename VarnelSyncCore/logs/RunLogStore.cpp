#include "logs/RunLogStore.hpp"

#include "common/ByteCount.hpp"
#include "common/Localization.hpp"
#include "logs/BuildInfo.hpp"

#include <fcntl.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>

namespace varnel {

namespace fs = std::filesystem;

namespace {

std::string nowText() {
    return formatISO8601(std::chrono::system_clock::now());
}

std::int64_t asInt(std::uint64_t value) {
    return value > static_cast<std::uint64_t>(INT64_MAX) ? INT64_MAX : static_cast<std::int64_t>(value);
}

std::string cloudKind(const std::optional<CloudFolderInfo>& cloud) {
    return cloud ? std::string(toString(cloud->kind)) : "none";
}

LogRecord startRecord(const RunLogInput& input) {
    const SyncProfile& profile = input.profile;
    const SyncRunResult& result = input.result;
    LogRecord record{nowText(), "run.start", {}};
    record.add("runID", result.id.string());
    record.add("profileId", profile.id.string());
    record.add("profileName", profile.name);
    record.add("startedAt", formatISO8601(result.startedAt));
    record.add("sourcePath", input.plan ? input.plan->sourceRoot : profile.sourceDisplayPath);
    record.add("destinationPath", input.plan ? input.plan->destinationRoot : profile.destinationDisplayPath);
    record.add("sourceVolume", input.sourceVolumeName.value_or("unknown"));
    record.add("destinationVolume", input.destinationVolumeName.value_or("unknown"));
    record.add("sameVolume", input.plan ? input.plan->isSameVolume : false);
    record.add("sourceCloudFolder", cloudKind(input.plan ? input.plan->sourceCloud : std::nullopt));
    record.add("destinationCloudFolder", cloudKind(input.plan ? input.plan->destinationCloud : std::nullopt));
    record.add("stagingOutsideDestination", input.plan != nullptr && input.plan->stagingDirectory.has_value());
    record.add("config.mode", std::string(toString(profile.mode)));
    record.add("config.durability", std::string(toString(profile.durability)));
    record.add("config.verification", std::string(toString(profile.verification)));
    record.add("config.metadataPolicy", std::string(toString(profile.metadataPolicy)));
    record.add("config.hiddenFilePolicy", std::string(toString(profile.hiddenFilePolicy)));
    record.add("config.onlineOnlyFiles", std::string(toString(profile.onlineOnlyFiles)));
    record.add("config.exclusionRules", static_cast<std::int64_t>(profile.exclusionRules.size()));
    record.add("config.maxItemsBeforeWarning", static_cast<std::int64_t>(profile.safetyThresholds.maxItemsBeforeWarning));
    record.add("config.maxFractionBeforeWarning", profile.safetyThresholds.maxFractionBeforeWarning);
    record.add("config.maxBytesBeforeWarning", static_cast<std::int64_t>(profile.safetyThresholds.maxBytesBeforeWarning));
    record.add("config.schedule", std::string(toString(profile.schedule.kind)));
    record.add("build.version", std::string(build_info::kVersion));
    record.add("build.build", std::string(build_info::kBuild));
    record.add("build.sourceRevision", std::string(build_info::kSourceRevision));
    record.add("build.builtAt", std::string(build_info::kBuiltAt));
    return record;
}

LogRecord summaryRecord(const SyncPlanSummary& s) {
    LogRecord record{nowText(), "plan.summary", {}};
    record.add("filesToCopy", s.filesToCopy);
    record.add("filesToUpdate", s.filesToUpdate);
    record.add("filesUnchanged", s.filesUnchanged);
    record.add("directoriesToCreate", s.directoriesToCreate);
    record.add("itemsToArchive", s.itemsToArchive);
    record.add("itemsExcluded", s.itemsExcluded);
    record.add("itemsUnsupported", s.itemsUnsupported);
    record.add("bytesToTransfer", s.bytesToTransfer);
    record.add("bytesToArchive", s.bytesToArchive);
    record.add("sourceItemsScanned", s.totalSourceItemsScanned);
    record.add("destinationItemsScanned", s.totalDestinationItemsScanned);
    record.add("filesToDownload", s.filesToDownload);
    record.add("bytesToDownload", s.bytesToDownload);
    record.add("filesSkippedOnlineOnly", s.filesSkippedOnlineOnly);
    record.add("onlineOnlyFilesUnchanged", s.onlineOnlyFilesUnchanged);
    return record;
}

LogRecord finishRecord(const SyncRunResult& r) {
    LogRecord record{nowText(), "run.finish", {}};
    record.add("outcome", std::string(toString(r.outcome)));
    record.add("finishedAt", formatISO8601(r.finishedAt));
    record.add("durationSeconds", r.durationSeconds);
    record.add("filesCopied", static_cast<std::int64_t>(r.filesCopied));
    record.add("filesUpdated", static_cast<std::int64_t>(r.filesUpdated));
    record.add("filesSkipped", static_cast<std::int64_t>(r.filesSkipped));
    record.add("filesFailed", static_cast<std::int64_t>(r.filesFailed));
    record.add("directoriesCreated", static_cast<std::int64_t>(r.directoriesCreated));
    record.add("itemsArchived", static_cast<std::int64_t>(r.itemsArchived));
    record.add("bytesTransferred", asInt(r.bytesTransferred));
    record.add("averageBytesPerSecond", r.averageBytesPerSecond);
    record.add("peakBytesPerSecond", r.peakBytesPerSecond);
    record.add("filesVerified", static_cast<std::int64_t>(r.filesVerified));
    record.add("verificationFailures", static_cast<std::int64_t>(r.verificationFailures));
    return record;
}

std::string speed(double bytesPerSecond) {
    if (!(bytesPerSecond > 0)) return "0 B/s";
    return formatByteCount(static_cast<std::int64_t>(bytesPerSecond)) + "/s";
}

std::string duration(double seconds) {
    const auto whole = static_cast<long long>(seconds);
    if (whole < 60) return fmt::format("{:.1f} s", seconds);
    return fmt::format("{}:{:02d}:{:02d}", whole / 3600, static_cast<int>(whole / 60 % 60), static_cast<int>(whole % 60));
}

// Lists at most kReportListLimit lines, then how many more there are.
template <typename Item, typename Line>
void appendCapped(std::ostringstream& out, const char* heading, const std::vector<Item>& items, Line line) {
    if (items.empty()) return;
    out << "\n" << heading << " (" << items.size() << ")\n";
    const std::size_t shown = std::min(items.size(), RunLogStore::kReportListLimit);
    for (std::size_t i = 0; i < shown; ++i) out << "  " << line(items[i]) << "\n";
    if (items.size() > shown) out << "  " << items.size() - shown << " more (see the JSONL log).\n";
}

// Writes the whole file under a temporary name, flushes it and renames it into place,
// so a reader never sees half a log.
void writeFileAtomically(const fs::path& path, const std::string& contents) {
    const fs::path temporary = path.string() + ".tmp";
    const int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (fd < 0) throw std::system_error(errno, std::generic_category(), temporary.string());
    std::size_t written = 0;
    while (written < contents.size()) {
        const ssize_t n = ::write(fd, contents.data() + written, contents.size() - written);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            const int error = errno;
            ::close(fd);
            ::unlink(temporary.c_str());
            throw std::system_error(error, std::generic_category(), temporary.string());
        }
        written += static_cast<std::size_t>(n);
    }
    ::fsync(fd);
    ::close(fd);
    if (::rename(temporary.c_str(), path.c_str()) != 0) {
        const int error = errno;
        ::unlink(temporary.c_str());
        throw std::system_error(error, std::generic_category(), path.string());
    }
}

// A run's outcome is in its closing record, the last line of its log, and nowhere else
// (quotes inside strings are escaped). Reading the end of each log rather than all of it
// keeps retention from reading up to the whole 50 MB it keeps after every run.
bool endedBadly(const fs::path& log) {
    constexpr std::streamoff kTailBytes = 64 * 1024;  // a closing record is well under 1 KiB
    std::ifstream in(log, std::ios::binary | std::ios::ate);
    const std::streamoff size = in ? static_cast<std::streamoff>(in.tellg()) : -1;
    if (size < 0) return false;
    const std::streamoff start = std::max<std::streamoff>(0, size - kTailBytes);
    in.seekg(start);
    std::string text(static_cast<std::size_t>(size - start), '\0');
    in.read(text.data(), static_cast<std::streamsize>(text.size()));
    text.resize(static_cast<std::size_t>(std::max<std::streamsize>(0, in.gcount())));
    return text.find("\"outcome\":\"failed\"") != std::string::npos ||
           text.find("\"outcome\":\"cancelled\"") != std::string::npos;
}

}  // namespace

RunLogStore::RunLogStore(fs::path directory, int maximumRunCount, std::int64_t maximumTotalBytes,
                         DiagnosticSink diagnostics)
    : directory_(std::move(directory)),
      maximumRunCount_(maximumRunCount),
      maximumTotalBytes_(maximumTotalBytes),
      diagnostics_(std::move(diagnostics)) {}

std::string RunLogStore::logPath(const Uuid& runID) const {
    return (directory_ / ("run-" + runID.string() + ".jsonl")).string();
}

std::string RunLogStore::reportPath(const Uuid& runID) const {
    return (directory_ / ("run-" + runID.string() + ".txt")).string();
}

void RunLogStore::diagnose(const std::string& message) const {
    if (diagnostics_) {
        diagnostics_(message);
    } else {
        ::syslog(LOG_WARNING, "%s", message.c_str());
    }
}

std::vector<LogRecord> RunLogStore::makeRecords(const RunLogInput& input) {
    std::vector<LogRecord> records;
    records.push_back(startRecord(input));
    if (input.plan) records.push_back(summaryRecord(input.plan->summary));
    for (const auto& action : input.actionResults) {
        LogRecord record{nowText(), "action", {}};
        record.add("path", std::string(action.relativePath.value()));
        record.add("action", std::string(toString(action.type)));
        record.add("succeeded", action.succeeded);
        record.add("bytes", asInt(action.bytesWritten));
        record.add("seconds", action.durationSeconds);
        if (action.errorCode) record.add("errorCode", *action.errorCode);
        if (action.errorMessage) record.add("errorMessage", *action.errorMessage);
        records.push_back(std::move(record));
    }
    for (const auto& warning : input.result.warnings) {
        LogRecord record{nowText(), "warning", {}};
        record.add("category", std::string(toString(warning.category)));
        record.add("path", warning.relativePath ? std::string(warning.relativePath->value()) : std::string());
        record.add("message", warning.message);
        records.push_back(std::move(record));
    }
    for (const auto& error : input.result.errors) {
        LogRecord record{nowText(), "error", {}};
        record.add("code", error.code);
        record.add("path", error.relativePath ? std::string(error.relativePath->value()) : std::string());
        record.add("message", error.message);
        records.push_back(std::move(record));
    }
    records.push_back(finishRecord(input.result));
    return records;
}

std::string RunLogStore::makeReport(const RunLogInput& input) {
    const SyncRunResult& r = input.result;
    std::ostringstream out;
    out << "Varnel Sync run report\n";
    const auto header = [&](const char* label, const std::string& value) {
        out << fmt::format("{:<13}: {}\n", label, value);
    };
    header("Profile", input.profile.name);
    header("Mode", displayName(r.mode));
    header("Result", displayName(r.outcome));
    header("Source", input.plan ? input.plan->sourceRoot : input.profile.sourceDisplayPath);
    header("Destination", input.plan ? input.plan->destinationRoot : input.profile.destinationDisplayPath);
    header("Started", formatISO8601(r.startedAt));
    header("Finished", formatISO8601(r.finishedAt));
    header("Duration", duration(r.durationSeconds));
    out << "\n";
    const auto count = [&](const char* label, const std::string& value) {
        out << fmt::format("{:<17}: {}\n", label, value);
    };
    count("Files copied", std::to_string(r.filesCopied));
    count("Files updated", std::to_string(r.filesUpdated));
    count("Files skipped", std::to_string(r.filesSkipped));
    count("Files failed", std::to_string(r.filesFailed));
    count("Folders created", std::to_string(r.directoriesCreated));
    count("Items archived", std::to_string(r.itemsArchived));
    count("Bytes transferred", formatByteCount(asInt(r.bytesTransferred)));
    count("Average speed", speed(r.averageBytesPerSecond));
    count("Peak speed", speed(r.peakBytesPerSecond));
    if (r.verification == VerificationMode::none) {
        count("Verification", "off");
    } else {
        std::string verified = std::to_string(r.filesVerified);
        if (r.verificationFailures > 0) verified += " (failures: " + std::to_string(r.verificationFailures) + ")";
        count("Files verified", verified);
    }
    appendCapped(out, "Errors", r.errors, [](const RecordedError& e) {
        return (e.relativePath ? e.relativePath->description() + ": " : std::string()) + e.message;
    });
    appendCapped(out, "Warnings", r.warnings, [](const SyncWarning& w) {
        return title(w.category) + ": " + w.message;
    });
    return out.str();
}

std::optional<SyncError> RunLogStore::write(const RunLogInput& input) {
    std::lock_guard lock(mutex_);
    std::error_code error;
    fs::create_directories(directory_, error);
    if (error) {
        diagnose("Could not create log directory: " + error.message());
        return SyncError(SyncError::RunLogFailure{directory_.string() + ": " + error.message()});
    }
    try {
        std::string lines;
        for (const auto& record : makeRecords(input)) {
            lines += encodeLine(record);
            lines += '\n';
        }
        writeFileAtomically(logPath(input.result.id), lines);
        writeFileAtomically(reportPath(input.result.id), makeReport(input));
    } catch (const std::exception& failure) {
        diagnose(std::string("Could not write run log: ") + failure.what());
        return SyncError(SyncError::RunLogFailure{failure.what()});
    }
    prune();
    return std::nullopt;
}

void RunLogStore::prune() {
    struct Run {
        fs::path log;
        fs::file_time_type modified;
        std::uintmax_t bytes;
    };
    std::vector<Run> runs;
    std::error_code error;
    for (const auto& item : fs::directory_iterator(directory_, error)) {
        if (item.path().extension() != ".jsonl") continue;
        std::error_code itemError;
        const auto bytes = item.file_size(itemError);
        const auto modified = item.last_write_time(itemError);
        if (!itemError) runs.push_back({item.path(), modified, bytes});
    }
    if (error) {
        diagnose("Could not list run logs: " + error.message());
        return;
    }
    std::sort(runs.begin(), runs.end(), [](const Run& a, const Run& b) {
        return a.modified != b.modified ? a.modified > b.modified : a.log > b.log;
    });
    std::optional<fs::path> protectedLog;
    for (const auto& run : runs) {
        if (endedBadly(run.log)) {
            protectedLog = run.log;
            break;
        }
    }
    std::int64_t keptBytes = 0;
    int keptCount = 0;
    bool keeping = true;
    for (const auto& run : runs) {
        if (keeping && keptCount + 1 <= maximumRunCount_ &&
            keptBytes + static_cast<std::int64_t>(run.bytes) <= maximumTotalBytes_) {
            ++keptCount;
            keptBytes += static_cast<std::int64_t>(run.bytes);
            continue;
        }
        keeping = false;  // whichever limit is reached first ends the keeping
        if (protectedLog && run.log == *protectedLog) continue;
        std::error_code removeError;
        fs::remove(run.log, removeError);
        auto report = run.log;
        report.replace_extension(".txt");
        fs::remove(report, removeError);
    }
}

}  // namespace varnel

namespace varnel {

std::vector<LogRecord> RunLogStore::readLog(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) throw std::system_error(errno, std::generic_category(), path.string());
    std::ostringstream contents;
    contents << in.rdbuf();
    return decodeLog(contents.str());
}

}  // namespace varnel
