#pragma once

#include "model/SafetyThresholds.hpp"
#include "plan/Confirmation.hpp"
#include "plan/SyncPlan.hpp"
#include "transfer/SyncError.hpp"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace varnel {

// The last look at a finished plan before anything is written. It never changes the
// plan; it returns blockers (errors that forbid the run) and concerns (findings for the
// confirmation sheet). A severe concern makes the user type the confirmation word.
// Pure and stateless: the same plan and thresholds always give the same decision.
class SafetyGate {
public:
    enum class Severity { advisory, severe };

    struct Concern {
        std::string id;  // one of the stable ids in concern_ids
        Severity severity = Severity::advisory;
        std::string title;
        std::string detail;

        friend bool operator==(const Concern&, const Concern&) = default;
    };

    struct Decision {
        std::vector<SyncError> blockers;
        std::vector<Concern> concerns;  // in the order the rules are evaluated

        bool hasSevereConcern() const;
        friend bool operator==(const Decision&, const Decision&) = default;
    };

    // The sizes the rules compare, computed from the plan and the thresholds.
    struct Quantities {
        // What the run adds to the destination: the transfers, and the archived bytes when
        // the archive lies on another volume (there archiving is a copy).
        std::int64_t writeBytes = 0;
        // The larger of the minimum margin and writeBytes × the margin fraction (truncated).
        std::int64_t headroom = 0;
        std::int64_t wanted = 0;  // writeBytes + headroom
        // Items to archive ÷ destination items scanned; 0 when none were scanned.
        double fraction = 0;

        friend bool operator==(const Quantities&, const Quantities&) = default;
    };

    // Typed (after trimming and upper-casing) to confirm a run with a severe concern.
    static constexpr std::string_view kConfirmationWord = "ARCHIVE";

    SafetyThresholds thresholds;

    SafetyGate() = default;
    explicit SafetyGate(SafetyThresholds thresholds) : thresholds(thresholds) {}

    // Overflow in a size sum stops the process (a programming error, never a plan).
    Quantities quantities(const SyncPlan& plan) const;

    // The rules, in order (all comparisons strict: a plan exactly at a threshold raises
    // no severe concern):
    // 1. free space, when anything is written or archived: less than writeBytes free is
    //    the insufficient-space blocker; less than `wanted` is "free-space-tight";
    // 2. online-only downloads that may not fit where they are downloaded;
    // 3. archive thresholds (items, fraction, bytes: severe) and "archive-any";
    // 4. an empty source ("empty-source", or "empty-source-mirror" when Mirror would
    //    archive everything in the destination: severe);
    // 5. items that could not be planned;
    // 6. a volume whose identity could not be confirmed (severe in Mirror mode).
    Decision evaluate(const SyncPlan& plan) const;

    // Whether a confirmation lets a decision's run start: every concern's id is
    // acknowledged (extra acknowledgements do no harm), and when any concern is severe
    // the typed phrase, trimmed of white space at both ends and upper-cased, is exactly
    // the confirmation word. Blockers are not considered here: they refuse the run
    // whatever was confirmed.
    static bool isSatisfied(const Decision& decision, const Confirmation& confirmation);
};

// The stable concern ids.
namespace concern_ids {
inline constexpr const char* freeSpaceTight = "free-space-tight";
inline constexpr const char* onlineOnlySpace = "online-only-space";
inline constexpr const char* archiveCount = "archive-count";
inline constexpr const char* archiveFraction = "archive-fraction";
inline constexpr const char* archiveBytes = "archive-bytes";
inline constexpr const char* archiveAny = "archive-any";
inline constexpr const char* emptySource = "empty-source";
inline constexpr const char* emptySourceMirror = "empty-source-mirror";
inline constexpr const char* planErrors = "plan-errors";
inline constexpr const char* volumeUnverifiable = "volume-unverifiable";
}  // namespace concern_ids

std::string_view toString(SafetyGate::Severity severity);  // "advisory", "severe"
std::optional<SafetyGate::Severity> parseSafetyGateSeverity(std::string_view raw);

}  // namespace varnel

template <>
struct std::hash<varnel::SafetyGate::Concern> {
    std::size_t operator()(const varnel::SafetyGate::Concern& concern) const noexcept;
};
