#pragma once

#include "logs/LogRecord.hpp"
#include "logs/RunLogging.hpp"

#include <cstdint>
#include <filesystem>
#include <functional>
#include <mutex>
#include <string>

namespace varnel {

// Keeps one JSON Lines log ("run-<UUID>.jsonl") and one text report ("run-<UUID>.txt")
// per run in one folder, pruned after every write to the newest runs within a count and
// a byte budget, always keeping the newest failed or cancelled run. All calls are
// serialised. The folder lies outside every endpoint, so plain paths are used.
class RunLogStore final : public RunLogging {
public:
    static constexpr int kDefaultMaximumRunCount = 100;
    static constexpr std::int64_t kDefaultMaximumTotalBytes = 50'000'000;
    static constexpr std::size_t kReportListLimit = 50;

    // Receives the store's own diagnostics (the system log in production).
    using DiagnosticSink = std::function<void(const std::string&)>;

    explicit RunLogStore(std::filesystem::path directory, int maximumRunCount = kDefaultMaximumRunCount,
                         std::int64_t maximumTotalBytes = kDefaultMaximumTotalBytes, DiagnosticSink diagnostics = {});

    std::optional<SyncError> write(const RunLogInput& input) override;
    std::string logPath(const Uuid& runID) const override;
    std::string reportPath(const Uuid& runID) const override;
    const std::filesystem::path& directory() const { return directory_; }

    // The records of a log, in file order (for tools and tests), as decodeLog reads them:
    // a damaged last line is skipped, a damaged earlier line throws DecodingError.
    static std::vector<LogRecord> readLog(const std::filesystem::path& path);
    // The log records and report text of a run, as they are written.
    static std::vector<LogRecord> makeRecords(const RunLogInput& input);
    static std::string makeReport(const RunLogInput& input);

private:
    void prune();
    void diagnose(const std::string& message) const;

    std::filesystem::path directory_;
    int maximumRunCount_;
    std::int64_t maximumTotalBytes_;
    DiagnosticSink diagnostics_;
    std::mutex mutex_;
};

}  // namespace varnel
