#include "transfer/SyncPhase.hpp"

#include "common/Localization.hpp"

#include <array>

namespace varnel {

namespace {

struct PhaseText {
    SyncPhase phase;
    std::string_view raw;
    const char* label;
};

constexpr std::array<PhaseText, 14> kPhases{{
    {SyncPhase::idle, "idle", "Ready"},
    {SyncPhase::validating, "validating", "Checking folders"},
    {SyncPhase::scanningSource, "scanningSource", "Scanning source"},
    {SyncPhase::scanningDestination, "scanningDestination", "Scanning destination"},
    {SyncPhase::planning, "planning", "Planning"},
    {SyncPhase::awaitingConfirmation, "awaitingConfirmation", "Waiting for confirmation"},
    {SyncPhase::creatingDirectories, "creatingDirectories", "Creating folders"},
    {SyncPhase::copying, "copying", "Copying"},
    {SyncPhase::verifying, "verifying", "Verifying"},
    {SyncPhase::archiving, "archiving", "Archiving"},
    {SyncPhase::finishing, "finishing", "Finishing"},
    {SyncPhase::completed, "completed", "Completed"},
    {SyncPhase::cancelled, "cancelled", "Cancelled"},
    {SyncPhase::failed, "failed", "Failed"},
}};

const PhaseText& textOf(SyncPhase phase) {
    return kPhases[static_cast<std::size_t>(phase)];
}

}  // namespace

std::string_view toString(SyncPhase phase) {
    return textOf(phase).raw;
}

std::optional<SyncPhase> parseSyncPhase(std::string_view raw) {
    for (const auto& entry : kPhases) {
        if (entry.raw == raw) return entry.phase;
    }
    return std::nullopt;
}

std::string label(SyncPhase phase) {
    return tr(textOf(phase).label);
}

bool isFinal(SyncPhase phase) {
    return phase == SyncPhase::completed || phase == SyncPhase::cancelled || phase == SyncPhase::failed;
}

}  // namespace varnel
