#pragma once
// What `analyze` and `sync` print: the review of an analysis (summary, warnings, cloud
// notes, concerns, blockers, the plan as a table) and the report of a finished run,
// as text for people and as JSON for scripts. The plan table is written row by row,
// so a plan of any size starts printing at once and is never held as one string.

#include "plan/SafetyGate.hpp"
#include "plan/SyncActionType.hpp"
#include "plan/SyncPlan.hpp"
#include "transfer/SyncCoordinator.hpp"
#include "transfer/SyncRunResult.hpp"

#include <nlohmann/json.hpp>

#include <bitset>
#include <cstddef>
#include <ostream>
#include <string>
#include <string_view>

namespace varnel::cli {

// Which plan rows are listed: --show changes (the default: all but unchanged files),
// all, or a comma-separated list of action types (copyNewFile, archiveDestinationItem…).
class ActionFilter {
public:
    static ActionFilter changes();
    static ActionFilter all();
    // Throws UsageError naming the allowed words.
    static ActionFilter parse(std::string_view text);

    // Asked for every action of a plan, so one bit per type.
    bool includes(SyncActionType type) const { return types_.test(static_cast<std::size_t>(type)); }
    bool listsEverything() const { return types_.all(); }

private:
    void add(SyncActionType type) { types_.set(static_cast<std::size_t>(type)); }

    std::bitset<kAllSyncActionTypes.size()> types_;
};

struct ReviewParts {
    bool summary = true;
    bool plan = true;  // the table of actions
};

// The whole review of an analysis, in the order: heading, summary, warnings by category,
// cloud notes, concerns with severity, blockers, then the plan table.
void printReview(std::ostream& out, const std::string& profileName, const SyncCoordinator::AnalysisOutcome& outcome,
                 const ActionFilter& filter, ReviewParts parts = {});
void printConcerns(std::ostream& out, const SafetyGate::Decision& decision);
void printBlockers(std::ostream& out, const SafetyGate::Decision& decision);
void printPlanTable(std::ostream& out, const SyncPlan& plan, const ActionFilter& filter);

// {"blockers": [{"code", "message"}], "concerns": [{"id", "severity", "title", "detail"}]}
nlohmann::ordered_json decisionJSON(const SafetyGate::Decision& decision);
// {"plan": …, "decision": …, "confirmationWord": "ARCHIVE"}, streamed to `out` action by
// action. The outcome is unchanged afterwards (its actions are lent out meanwhile).
void writeAnalysisJSON(std::ostream& out, SyncCoordinator::AnalysisOutcome& outcome);

// The end of a run: outcome, counts, durability, warnings and errors, log and report.
void printRunResult(std::ostream& out, const SyncRunResult& result, const std::string& logFile,
                    const std::string& reportFile);
// The encoded run result plus "logFile" and "reportFile" (absent when no log was written).
nlohmann::ordered_json runResultJSON(const SyncRunResult& result, const std::string& logFile,
                                     const std::string& reportFile);

// One line for a finished run: "Completed with warnings: 12 files copied, 2 updated, …".
std::string runResultLine(const SyncRunResult& result);

}  // namespace varnel::cli
