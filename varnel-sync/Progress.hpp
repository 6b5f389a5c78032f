#pragma once
// The one-line progress display on stderr while analysis and synchronisation run. The
// engine reports from its worker threads, so drawing is serialised and throttled; the
// line is rewritten in place and cleared when the work ends.

#include "transfer/SyncCoordinator.hpp"
#include "transfer/TransferProgress.hpp"

#include <chrono>
#include <mutex>
#include <ostream>
#include <string>

namespace varnel::cli {

class ProgressLine {
public:
    // Draws nothing when `enabled` is false (stderr is no terminal, or --no-progress).
    ProgressLine(std::ostream& out, bool enabled, int columns);
    ~ProgressLine();
    ProgressLine(const ProgressLine&) = delete;
    ProgressLine& operator=(const ProgressLine&) = delete;

    void analysis(const SyncCoordinator::AnalysisProgress& progress);
    void transfer(const TransferProgress& progress);
    // Removes the line, so what follows starts on a clean line.
    void clear();

    // "Scanning source… 12000 items"
    static std::string analysisText(const SyncCoordinator::AnalysisProgress& progress);
    // "Copying 45% · 1.2 GB of 2.7 GB · 120 of 300 files · Copying Photos/a.jpg · 85 MB/s · 42 s left"
    static std::string transferText(const TransferProgress& progress);

private:
    void draw(const std::string& text, int phase);

    std::ostream& out_;
    bool enabled_;
    std::size_t columns_;
    std::mutex mutex_;
    bool drawn_ = false;
    int lastPhase_ = -1;
    std::chrono::steady_clock::time_point lastDraw_{};
};

}  // namespace varnel::cli
