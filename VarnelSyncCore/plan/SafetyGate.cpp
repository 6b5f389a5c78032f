#include "plan/SafetyGate.hpp"

#include "common/ByteCount.hpp"
#include "common/CheckedArithmetic.hpp"
#include "common/Localization.hpp"
#include "common/PlatformWording.hpp"
#include "common/Unicode.hpp"

#include <unicode/locid.h>
#include <unicode/unistr.h>

#include <algorithm>
#include <cmath>
#include <functional>

namespace varnel {

namespace {

using Severity = SafetyGate::Severity;
using Concern = SafetyGate::Concern;

// The integer part of a product that must fit a signed 64-bit count.
std::int64_t truncatedToInt64(double value, const char* what) {
    // 2^63 is exactly representable; anything at or above it (or NaN) does not fit.
    constexpr double limit = 9223372036854775808.0;
    if (!std::isfinite(value) || value >= limit || value < -limit) fatalOverflow(what);
    return static_cast<std::int64_t>(value);
}

std::string percentage(double fraction) { return fmt::format("{}%", std::llround(fraction * 100.0)); }

// Locale-independent full upper-casing, so the typed word is compared as the user sees it.
std::string upperCased(const std::string& utf8) {
    std::string result;
    icu::UnicodeString::fromUTF8(utf8).toUpper(icu::Locale::getRoot()).toUTF8String(result);
    return result;
}

}  // namespace

bool SafetyGate::Decision::hasSevereConcern() const {
    return std::any_of(concerns.begin(), concerns.end(),
                       [](const Concern& concern) { return concern.severity == Severity::severe; });
}

SafetyGate::Quantities SafetyGate::quantities(const SyncPlan& plan) const {
    const SyncPlanSummary& summary = plan.summary;
    Quantities result;
    result.writeBytes = summary.bytesToTransfer;
    if (!plan.archiveIsOnDestinationVolume) {
        result.writeBytes = checkedAdd(result.writeBytes, summary.bytesToArchive, "bytes the run writes");
    }
    const std::int64_t proportional = truncatedToInt64(
        static_cast<double>(result.writeBytes) * thresholds.freeSpaceSafetyMarginFraction, "free-space headroom");
    result.headroom = std::max(thresholds.freeSpaceSafetyMarginMinimum, proportional);
    result.wanted = checkedAdd(result.writeBytes, result.headroom, "bytes wanted on the destination");
    if (summary.totalDestinationItemsScanned > 0) {
        result.fraction =
            static_cast<double>(summary.itemsToArchive) / static_cast<double>(summary.totalDestinationItemsScanned);
    }
    return result;
}

SafetyGate::Decision SafetyGate::evaluate(const SyncPlan& plan) const {
    const SyncPlanSummary& summary = plan.summary;
    const Quantities sizes = quantities(plan);
    Decision decision;
    const auto raise = [&](const char* id, Severity severity, std::string title, std::string detail) {
        decision.concerns.push_back({id, severity, std::move(title), std::move(detail)});
    };

    // 1. Free space on the destination.
    if (sizes.writeBytes > 0 || summary.itemsToArchive >= 1) {
        const std::int64_t free = plan.destinationFreeBytes;
        if (free < sizes.writeBytes) {
            decision.blockers.emplace_back(SyncError::InsufficientDestinationSpace{sizes.writeBytes, free});
        } else if (free < sizes.wanted) {
            raise(concern_ids::freeSpaceTight, Severity::advisory, tr("Destination space is tight"),
                  trFormat("This run writes about {} and {} is free. That leaves less than the {} of headroom "
                           "Varnel Sync prefers to keep.",
                           formatByteCount(sizes.writeBytes), formatByteCount(free), formatByteCount(sizes.headroom)));
        }
    }

    // 2. Online-only files are downloaded onto the source's volume before they are copied.
    if (summary.bytesToDownload >= 1 && plan.sourceFreeBytes) {
        const std::int64_t need =
            plan.isSameVolume ? checkedAdd(summary.bytesToDownload, sizes.writeBytes, "download and write bytes")
                              : summary.bytesToDownload;
        const std::int64_t free = plan.isSameVolume ? plan.destinationFreeBytes : *plan.sourceFreeBytes;
        if (free < need) {
            raise(concern_ids::onlineOnlySpace, Severity::advisory,
                  trFormat("The downloads may not fit on {}", platform_wording::kThisComputer),
                  trFormat("{} of online-only files must be downloaded to {} before they can be copied, and {} is "
                           "free. {} can remove other downloaded cloud files to make room; a download that still "
                           "does not fit fails, and that file is not copied.",
                           formatByteCount(summary.bytesToDownload), platform_wording::kThisComputer,
                           formatByteCount(free), platform_wording::kOperatingSystem));
        }
    }

    // 3. How much Mirror moves out of the destination.
    if (summary.itemsToArchive >= 1) {
        if (summary.itemsToArchive > thresholds.maxItemsBeforeWarning) {
            raise(concern_ids::archiveCount, Severity::severe,
                  trFormat("{} items will be removed from the destination", summary.itemsToArchive),
                  trFormat("That is more than the {}-item threshold for this profile. The items are moved to the "
                           "Varnel Sync archive folder, not deleted.",
                           thresholds.maxItemsBeforeWarning));
        }
        if (sizes.fraction > thresholds.maxFractionBeforeWarning) {
            raise(concern_ids::archiveFraction, Severity::severe,
                  trFormat("{} of the destination will be removed", percentage(sizes.fraction)),
                  trFormat("{} of {} scanned destination items are not in the source. A large proportion often "
                           "means the wrong source folder was selected.",
                           summary.itemsToArchive, summary.totalDestinationItemsScanned));
        }
        if (summary.bytesToArchive > thresholds.maxBytesBeforeWarning) {
            raise(concern_ids::archiveBytes, Severity::severe,
                  trFormat("{} will be moved to the archive", formatByteCount(summary.bytesToArchive)),
                  trFormat("That exceeds the {} threshold for this profile.",
                           formatByteCount(thresholds.maxBytesBeforeWarning)));
        }
        raise(concern_ids::archiveAny, Severity::advisory,
              trFormat("{} items will be moved to the archive", summary.itemsToArchive),
              tr("Mirror mode moves destination items that are no longer in the source into a timestamped archive "
                 "folder. Nothing is deleted."));
    }

    // 4. An empty source usually means the wrong folder or a drive that is not there.
    if (summary.totalSourceItemsScanned == 0) {
        if (plan.mode == SyncMode::mirror && summary.totalDestinationItemsScanned > 0) {
            raise(concern_ids::emptySourceMirror, Severity::severe, tr("The source folder is empty"),
                  trFormat("The source contains no items but the destination has {}. Mirror mode would move all of "
                           "them to the archive. Check that the correct source folder is selected and that its drive "
                           "is fully mounted.",
                           summary.totalDestinationItemsScanned));
        } else {
            raise(concern_ids::emptySource, Severity::advisory, tr("The source folder is empty"),
                  tr("Nothing will be copied. Check that the correct folder is selected."));
        }
    }

    // 5. Items the planner could not handle.
    if (summary.errorCount > 0) {
        raise(concern_ids::planErrors, Severity::advisory,
              trFormat("{} items could not be planned", summary.errorCount),
              tr("Those items will be skipped. See the change preview for details."));
    }

    // 6. A volume that could not be confirmed: in Mirror mode the wrong drive would lose
    //    its contents to the archive, so the user must confirm by typing.
    std::string explanation;
    for (const auto& warning : plan.warnings) {
        if (warning.category != SyncWarning::Category::volumeIdentityUnverifiable) continue;
        if (!explanation.empty()) explanation += ' ';
        explanation += warning.message;
    }
    if (!explanation.empty()) {
        raise(concern_ids::volumeUnverifiable, plan.mode == SyncMode::mirror ? Severity::severe : Severity::advisory,
              tr("A volume's identity could not be confirmed"), std::move(explanation));
    }
    return decision;
}

bool SafetyGate::isSatisfied(const Decision& decision, const Confirmation& confirmation) {
    std::set<std::string> required;
    for (const auto& concern : decision.concerns) required.insert(concern.id);
    if (confirmation.acknowledgedConcernIDs.size() < required.size()) return false;
    if (!std::includes(confirmation.acknowledgedConcernIDs.begin(), confirmation.acknowledgedConcernIDs.end(),
                       required.begin(), required.end())) {
        return false;
    }
    if (!decision.hasSevereConcern()) return true;
    if (!confirmation.typedPhrase) return false;
    return upperCased(unicode::trimWhitespace(*confirmation.typedPhrase)) == kConfirmationWord;
}

std::string_view toString(SafetyGate::Severity severity) {
    switch (severity) {
        case Severity::advisory: return "advisory";
        case Severity::severe: return "severe";
    }
    return "advisory";
}

std::optional<SafetyGate::Severity> parseSafetyGateSeverity(std::string_view raw) {
    for (const auto severity : {Severity::advisory, Severity::severe}) {
        if (toString(severity) == raw) return severity;
    }
    return std::nullopt;
}

}  // namespace varnel

std::size_t std::hash<varnel::SafetyGate::Concern>::operator()(
    const varnel::SafetyGate::Concern& concern) const noexcept {
    std::size_t seed = std::hash<std::string>{}(concern.id);
    const auto mix = [&seed](std::size_t value) { seed ^= value + 0x9e3779b97f4a7c15ULL + (seed << 6) + (seed >> 2); };
    mix(static_cast<std::size_t>(concern.severity));
    mix(std::hash<std::string>{}(concern.title));
    mix(std::hash<std::string>{}(concern.detail));
    return seed;
}
