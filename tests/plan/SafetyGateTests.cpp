#include "plan/SafetyGate.hpp"

#include <gtest/gtest.h>

namespace varnel::testing {

namespace {

using Severity = SafetyGate::Severity;

constexpr std::int64_t GB = 1'000'000'000;

// Thresholds with round numbers: 100 items, 10 %, 10 GB; headroom 10 % but at least 1 GB.
SafetyThresholds thresholds() {
    SafetyThresholds value;
    value.maxItemsBeforeWarning = 100;
    value.maxFractionBeforeWarning = 0.1;
    value.maxBytesBeforeWarning = 10 * GB;
    value.freeSpaceSafetyMarginFraction = 0.1;
    value.freeSpaceSafetyMarginMinimum = 1 * GB;
    return value;
}

// A plan with a non-empty source that copies `transfer` bytes onto a roomy destination.
SyncPlan plan(SyncMode mode = SyncMode::update, std::int64_t transfer = 0) {
    SyncPlan value;
    value.mode = mode;
    value.summary.totalSourceItemsScanned = 10;
    value.summary.totalDestinationItemsScanned = 1000;
    value.summary.bytesToTransfer = transfer;
    value.destinationFreeBytes = 1000 * GB;
    return value;
}

SyncPlan archiving(std::int64_t items, std::int64_t bytes, std::int64_t destinationItems = 1000) {
    SyncPlan value = plan(SyncMode::mirror);
    value.summary.itemsToArchive = items;
    value.summary.bytesToArchive = bytes;
    value.summary.totalDestinationItemsScanned = destinationItems;
    return value;
}

std::vector<std::string> ids(const SafetyGate::Decision& decision) {
    std::vector<std::string> result;
    for (const auto& concern : decision.concerns) result.push_back(concern.id);
    return result;
}

const SafetyGate gate(thresholds());

TEST(SafetyGateTest, HeadroomIsTheLargerOfMinimumAndFraction) {
    EXPECT_EQ(gate.quantities(plan(SyncMode::update, 2 * GB)), (SafetyGate::Quantities{2 * GB, 1 * GB, 3 * GB, 0.0}));
    EXPECT_EQ(gate.quantities(plan(SyncMode::update, 50 * GB)),
              (SafetyGate::Quantities{50 * GB, 5 * GB, 55 * GB, 0.0}));
    EXPECT_EQ(gate.quantities(plan(SyncMode::update, 10'000'000'009)).headroom, 1'000'000'000);  // truncated
    EXPECT_EQ(gate.quantities(plan()).wanted, 1 * GB);

    // An archive on another volume is a copy and costs space; on the destination it is a rename.
    SyncPlan moved = archiving(5, 4 * GB);
    moved.summary.bytesToTransfer = 3 * GB;
    EXPECT_EQ(gate.quantities(moved).writeBytes, 3 * GB);
    moved.archiveIsOnDestinationVolume = false;
    EXPECT_EQ(gate.quantities(moved).writeBytes, 7 * GB);

    EXPECT_DOUBLE_EQ(gate.quantities(archiving(25, 0, 100)).fraction, 0.25);
    EXPECT_EQ(gate.quantities(archiving(25, 0, 0)).fraction, 0.0);  // nothing scanned: never a fraction
}

TEST(SafetyGateTest, FreeSpaceSplitsThreeWays) {
    // writeBytes 2 GB wants 3 GB free.
    const auto withFree = [](std::int64_t free) {
        SyncPlan value = plan(SyncMode::update, 2 * GB);
        value.destinationFreeBytes = free;
        return gate.evaluate(value);
    };
    EXPECT_EQ(withFree(3 * GB), SafetyGate::Decision{});

    const auto tight = withFree(3 * GB - 1);
    EXPECT_TRUE(tight.blockers.empty());
    EXPECT_EQ(ids(tight), std::vector<std::string>{"free-space-tight"});
    EXPECT_EQ(tight.concerns[0].severity, Severity::advisory);
    EXPECT_EQ(ids(withFree(2 * GB)), std::vector<std::string>{"free-space-tight"});  // exactly writeBytes still fits

    const auto blocked = withFree(2 * GB - 1);
    EXPECT_TRUE(blocked.concerns.empty());
    ASSERT_EQ(blocked.blockers.size(), 1u);
    EXPECT_EQ(blocked.blockers[0], SyncError(SyncError::InsufficientDestinationSpace{2 * GB, 2 * GB - 1}));

    // Nothing written and nothing archived: free space does not matter.
    SyncPlan idle = plan();
    idle.destinationFreeBytes = 0;
    EXPECT_EQ(gate.evaluate(idle), SafetyGate::Decision{});
    // Archiving alone still asks for the headroom.
    SyncPlan archiveOnly = archiving(1, 0);
    archiveOnly.destinationFreeBytes = 1 * GB - 1;
    EXPECT_EQ(ids(gate.evaluate(archiveOnly)), (std::vector<std::string>{"free-space-tight", "archive-any"}));
}

TEST(SafetyGateTest, ArchiveThresholdsAreStrict) {
    struct Case {
        const char* what;
        SyncPlan plan;
        std::vector<std::string> ids;
    };
    const Case cases[] = {
        {"nothing archived", archiving(0, 0), {}},
        {"at every threshold", archiving(100, 10 * GB), {"archive-any"}},
        {"one item more", archiving(101, 10 * GB, 1010), {"archive-count", "archive-any"}},
        {"exactly 10 %", archiving(10, 0, 100), {"archive-any"}},
        {"just over 10 %", archiving(11, 0, 100), {"archive-fraction", "archive-any"}},
        {"one byte more", archiving(1, 10 * GB + 1), {"archive-bytes", "archive-any"}},
        {"no destination items scanned", archiving(5, 0, 0), {"archive-any"}},
        {"everything over",
         archiving(500, 20 * GB, 600),
         {"archive-count", "archive-fraction", "archive-bytes", "archive-any"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        const auto decision = gate.evaluate(c.plan);
        EXPECT_EQ(ids(decision), c.ids);
        for (const auto& concern : decision.concerns) {
            EXPECT_EQ(concern.severity, concern.id == "archive-any" ? Severity::advisory : Severity::severe);
        }
    }
}

TEST(SafetyGateTest, AnEmptySourceIsSevereOnlyWhenMirrorWouldArchiveEverything) {
    const auto empty = [](SyncMode mode, std::int64_t destinationItems) {
        SyncPlan value = plan(mode);
        value.summary.totalSourceItemsScanned = 0;
        value.summary.totalDestinationItemsScanned = destinationItems;
        const auto decision = gate.evaluate(value);
        EXPECT_EQ(decision.concerns.size(), 1u);
        return decision.concerns.empty() ? SafetyGate::Concern{} : decision.concerns[0];
    };
    EXPECT_EQ(empty(SyncMode::update, 40).severity, Severity::advisory);
    EXPECT_EQ(empty(SyncMode::mirror, 0).severity, Severity::advisory);
    const auto mirror = empty(SyncMode::mirror, 40);
    EXPECT_EQ(mirror.id, "empty-source-mirror");
    EXPECT_EQ(mirror.severity, Severity::severe);

    SyncPlan errors = plan();
    errors.summary.errorCount = 3;
    EXPECT_EQ(ids(gate.evaluate(errors)), std::vector<std::string>{"plan-errors"});
}

TEST(SafetyGateTest, OnlineOnlyDownloadsMustFitWhereTheyLand) {
    const auto downloads = [](bool sameVolume, std::optional<std::int64_t> sourceFree, std::int64_t destinationFree) {
        SyncPlan value = plan(SyncMode::update, 1 * GB);
        value.summary.bytesToDownload = 4 * GB;
        value.isSameVolume = sameVolume;
        value.sourceFreeBytes = sourceFree;
        value.destinationFreeBytes = destinationFree;
        return gate.evaluate(value);
    };
    EXPECT_TRUE(downloads(false, 4 * GB, 100 * GB).concerns.empty());
    const auto apart = downloads(false, 4 * GB - 1, 100 * GB);
    ASSERT_EQ(ids(apart), std::vector<std::string>{"online-only-space"});
    EXPECT_EQ(apart.concerns[0].severity, Severity::advisory);
    // On one volume the downloads and the copies share the destination's space (5 GB);
    // the source's own figure is then beside the point.
    EXPECT_TRUE(downloads(true, 0, 5 * GB).concerns.empty());
    EXPECT_EQ(ids(downloads(true, 100 * GB, 5 * GB - 1)), std::vector<std::string>{"online-only-space"});
    // Unknown free space on the source: no guess.
    EXPECT_TRUE(downloads(false, std::nullopt, 100 * GB).concerns.empty());
}

TEST(SafetyGateTest, UnverifiableVolumeIsSevereOnlyInMirrorMode) {
    const auto withWarning = [](SyncMode mode) {
        SyncPlan value = plan(mode);
        value.warnings.emplace_back(SyncWarning::Category::hardLink, "Not about volumes");
        value.warnings.emplace_back(SyncWarning::Category::volumeIdentityUnverifiable,
                                    "Destination volume: This volume does not publish a UUID.");
        return gate.evaluate(value);
    };
    const SafetyGate::Concern expected{"volume-unverifiable", Severity::advisory,
                                       "A volume's identity could not be confirmed",
                                       "Destination volume: This volume does not publish a UUID."};
    EXPECT_EQ(withWarning(SyncMode::update).concerns, std::vector<SafetyGate::Concern>{expected});
    auto severe = expected;
    severe.severity = Severity::severe;
    EXPECT_EQ(withWarning(SyncMode::mirror).concerns, std::vector<SafetyGate::Concern>{severe});
    EXPECT_TRUE(gate.evaluate(plan(SyncMode::mirror)).concerns.empty());
}

TEST(SafetyGateTest, ConcernsComeInRuleOrder) {
    SyncPlan everything = archiving(500, 20 * GB, 600);
    everything.summary.bytesToTransfer = 1 * GB;
    everything.destinationFreeBytes = 1 * GB + 1;
    everything.summary.bytesToDownload = 1;
    everything.sourceFreeBytes = 0;
    everything.summary.totalSourceItemsScanned = 0;
    everything.summary.errorCount = 1;
    everything.warnings.emplace_back(SyncWarning::Category::volumeIdentityUnverifiable, "Source volume: x");
    EXPECT_EQ(ids(gate.evaluate(everything)),
              (std::vector<std::string>{"free-space-tight", "online-only-space", "archive-count", "archive-fraction",
                                        "archive-bytes", "archive-any", "empty-source-mirror", "plan-errors",
                                        "volume-unverifiable"}));
}

TEST(SafetyGateTest, ConfirmationAcceptance) {
    const SafetyGate::Concern advisoryA{"archive-any", Severity::advisory, "t", "d"};
    const SafetyGate::Concern advisoryB{"plan-errors", Severity::advisory, "t", "d"};
    const SafetyGate::Concern severe{"archive-count", Severity::severe, "t", "d"};
    const SafetyGate::Decision none{};
    const SafetyGate::Decision advisories{{}, {advisoryA, advisoryB}};
    const SafetyGate::Decision withSevere{{}, {severe, advisoryA}};
    struct Case {
        const char* what;
        SafetyGate::Decision decision;
        Confirmation confirmation;
        bool accepted;
    };
    const Case cases[] = {
        {"no concerns, empty confirmation", none, {}, true},
        {"advisories all ticked, nothing typed", advisories, {{"archive-any", "plan-errors"}, std::nullopt}, true},
        {"extra acknowledgements do no harm",
         advisories,
         {{"archive-any", "plan-errors", "other"}, std::nullopt},
         true},
        {"one advisory not ticked", advisories, {{"archive-any"}, std::nullopt}, false},
        {"same count, wrong ids", advisories, {{"archive-any", "other"}, std::nullopt}, false},
        {"severe, typed exactly", withSevere, {{"archive-count", "archive-any"}, "ARCHIVE"}, true},
        {"severe, lower case with spaces and a newline",
         withSevere,
         {{"archive-count", "archive-any"}, " archive\n"},
         true},
        {"severe, unicode white space around",
         withSevere,
         {{"archive-count", "archive-any"}, "\u00a0Archive\u2003"},
         true},
        {"severe, nothing typed", withSevere, {{"archive-count", "archive-any"}, std::nullopt}, false},
        {"severe, empty", withSevere, {{"archive-count", "archive-any"}, ""}, false},
        {"severe, ARCHIVED", withSevere, {{"archive-count", "archive-any"}, "ARCHIVED"}, false},
        {"severe, ARCHIVE NOW", withSevere, {{"archive-count", "archive-any"}, "ARCHIVE NOW"}, false},
        {"severe, inner space", withSevere, {{"archive-count", "archive-any"}, "ARCH IVE"}, false},
        {"severe typed but not ticked", withSevere, {{"archive-any"}, "ARCHIVE"}, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        EXPECT_EQ(SafetyGate::isSatisfied(c.decision, c.confirmation), c.accepted);
    }
}

}  // namespace

}  // namespace varnel::testing
