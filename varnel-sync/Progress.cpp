#include "varnel-sync/Progress.hpp"

#include "common/ByteCount.hpp"
#include "common/Localization.hpp"
#include "transfer/SyncPhase.hpp"
#include "varnel-sync/Output.hpp"

#include <cmath>

namespace varnel::cli {

namespace {

constexpr auto kRedrawInterval = std::chrono::milliseconds(100);

std::string bytes(std::uint64_t value) {
    return formatByteCount(static_cast<std::int64_t>(value));
}

}  // namespace

ProgressLine::ProgressLine(std::ostream& out, bool enabled, int columns)
    : out_(out), enabled_(enabled), columns_(columns > 10 ? static_cast<std::size_t>(columns) : 80) {}

ProgressLine::~ProgressLine() {
    clear();
}

std::string ProgressLine::analysisText(const SyncCoordinator::AnalysisProgress& progress) {
    std::string text = label(progress.phase) + "…";
    if (progress.scan) {
        text += " " + trFormat("{} items", progress.scan->itemsFound);
        if (progress.scan->currentRelativePath) text += " · " + progress.scan->currentRelativePath->description();
    }
    return text;
}

std::string ProgressLine::transferText(const TransferProgress& p) {
    std::string text = label(p.phase);
    text += trFormat(" {:.0f}%", std::floor(p.fractionCompleted() * 100));
    if (p.totalBytesPlanned > 0) text += " · " + trFormat("{} of {}", bytes(p.bytesTransferred), bytes(p.totalBytesPlanned));
    if (p.totalFilesPlanned > 0) {
        text += " · " + trFormat("{} of {} files", p.filesCompleted, p.totalFilesPlanned);
    }
    if (p.currentRelativePath) {
        text += " · " + (p.currentOperation ? *p.currentOperation + " " : std::string()) + *p.currentRelativePath;
    }
    if (p.bytesPerSecond >= 1) text += " · " + speedText(p.bytesPerSecond);
    if (p.estimatedSecondsRemaining) text += " · " + trFormat("{} left", durationText(*p.estimatedSecondsRemaining));
    return text;
}

void ProgressLine::analysis(const SyncCoordinator::AnalysisProgress& progress) {
    if (!enabled_) return;
    draw(analysisText(progress), static_cast<int>(progress.phase));
}

void ProgressLine::transfer(const TransferProgress& progress) {
    if (!enabled_) return;
    draw(transferText(progress), static_cast<int>(progress.phase));
}

void ProgressLine::draw(const std::string& text, int phase) {
    std::lock_guard lock(mutex_);
    const auto now = std::chrono::steady_clock::now();
    // A new phase is shown at once; within a phase the line is redrawn a few times a second.
    if (phase == lastPhase_ && now - lastDraw_ < kRedrawInterval) return;
    lastPhase_ = phase;
    lastDraw_ = now;
    out_ << '\r' << truncated(text, columns_ - 1) << "\x1b[K" << std::flush;
    drawn_ = true;
}

void ProgressLine::clear() {
    std::lock_guard lock(mutex_);
    if (!drawn_) return;
    out_ << "\r\x1b[K" << std::flush;
    drawn_ = false;
}

}  // namespace varnel::cli
