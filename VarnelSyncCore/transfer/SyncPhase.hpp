#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace varnel {

// Where a run stands. The first six phases belong to analysis; a synchronisation moves
// through creatingDirectories, copying, verifying, archiving and finishing, and ends in
// completed, cancelled or failed. Raw values are the case names (they reach run logs).
enum class SyncPhase {
    idle,
    validating,
    scanningSource,
    scanningDestination,
    planning,
    awaitingConfirmation,
    creatingDirectories,
    copying,
    verifying,
    archiving,
    finishing,
    completed,
    cancelled,
    failed,
};

std::string_view toString(SyncPhase phase);
std::optional<SyncPhase> parseSyncPhase(std::string_view raw);
// The words shown above the progress bar ("Creating folders", "Copying", ...), translated.
std::string label(SyncPhase phase);
// Whether the run has ended (completed, cancelled or failed).
bool isFinal(SyncPhase phase);

}  // namespace varnel
