#include "varnel-sync/Review.hpp"

#include "common/ByteCount.hpp"
#include "common/Localization.hpp"
#include "model/SyncOptions.hpp"
#include "plan/SyncWarning.hpp"
#include "transfer/DurabilityOutcome.hpp"
#include "varnel-sync/Context.hpp"
#include "varnel-sync/Output.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <map>
#include <vector>

namespace varnel::cli {

namespace {

constexpr std::size_t kMaximumPathColumn = 60;

// Label/value lines whose values start in one column.
class Lines {
public:
    void add(std::string label, std::string value) { rows_.emplace_back(std::move(label), std::move(value)); }
    void print(std::ostream& out, std::string_view indent = "  ") const {
        std::size_t width = 0;
        for (const auto& row : rows_) width = std::max(width, displayWidth(row.first));
        for (const auto& [label, value] : rows_) out << indent << padded(label, width + 2) << value << '\n';
    }

private:
    std::vector<std::pair<std::string, std::string>> rows_;
};

std::string count(std::int64_t value) {
    return std::to_string(value);
}

void printWarnings(std::ostream& out, const std::vector<SyncWarning>& warnings) {
    if (warnings.empty()) return;
    out << '\n' << trFormat("Warnings ({})", warnings.size()) << '\n';
    std::map<SyncWarning::Category, std::vector<const SyncWarning*>> byCategory;
    for (const auto& warning : warnings) byCategory[warning.category].push_back(&warning);
    for (const auto category : kAllSyncWarningCategories) {
        const auto found = byCategory.find(category);
        if (found == byCategory.end()) continue;
        out << "  " << title(category) << '\n';
        for (const SyncWarning* warning : found->second) out << "    • " << warning->message << '\n';
    }
}

void printNotes(std::ostream& out, const std::vector<PlanNote>& notes) {
    for (const auto& note : notes) {
        out << '\n' << note.title << '\n';
        for (const auto& line : note.lines) out << "    • " << line << '\n';
    }
}

void printSummary(std::ostream& out, const SyncPlan& plan) {
    const SyncPlanSummary& s = plan.summary;
    Lines lines;
    lines.add(tr("Folders to create"), count(s.directoriesToCreate));
    lines.add(tr("Files to copy"), count(s.filesToCopy));
    lines.add(tr("Files to update"),
              s.filesToUpdate > 0 ? trFormat("{} (replacing {})", s.filesToUpdate, formatByteCount(s.bytesBeingReplaced))
                                  : count(s.filesToUpdate));
    lines.add(tr("Unchanged files"), count(s.filesUnchanged));
    if (s.symlinksToCreate > 0 || s.symlinksToUpdate > 0) {
        lines.add(tr("Links to create"), count(s.symlinksToCreate));
        lines.add(tr("Links to update"), count(s.symlinksToUpdate));
    }
    if (plan.mode == SyncMode::mirror || s.itemsToArchive > 0) {
        lines.add(tr("Items to archive"),
                  trFormat("{} ({})", s.itemsToArchive, formatByteCount(s.bytesToArchive)));
    }
    lines.add(tr("Excluded items"), count(s.itemsExcluded));
    if (s.itemsUnsupported > 0) lines.add(tr("Unsupported items"), count(s.itemsUnsupported));
    if (s.errorCount > 0) lines.add(tr("Items not planned"), count(s.errorCount));
    if (s.filesToDownload > 0) {
        lines.add(tr("Online-only to download"), trFormat("{} ({})", s.filesToDownload, formatByteCount(s.bytesToDownload)));
    }
    if (s.filesSkippedOnlineOnly > 0) {
        lines.add(tr("Online-only skipped"),
                  trFormat("{} ({})", s.filesSkippedOnlineOnly, formatByteCount(s.bytesSkippedOnlineOnly)));
    }
    lines.add(tr("To write"), s.largestFileBytes > 0 ? trFormat("{} (largest file {})", formatByteCount(s.bytesToTransfer),
                                                                formatByteCount(s.largestFileBytes))
                                                     : formatByteCount(s.bytesToTransfer));
    lines.add(tr("Scanned"), trFormat("{} source items, {} destination items", s.totalSourceItemsScanned,
                                      s.totalDestinationItemsScanned));
    lines.add(tr("Free on destination"), formatByteCount(plan.destinationFreeBytes));
    out << '\n' << tr("Summary") << '\n';
    lines.print(out);
}

std::int64_t shownCount(const SyncPlan& plan, const ActionFilter& filter) {
    return std::count_if(plan.actions.begin(), plan.actions.end(),
                         [&](const SyncAction& action) { return filter.includes(action.type); });
}

// Writes `text` with `indent` spaces after each line break, so a value dumped with its
// own indentation nests inside a document printed piece by piece.
void writeNested(std::ostream& out, const std::string& text, std::size_t indent) {
    const std::string breakAndIndent = "\n" + std::string(indent, ' ');
    std::size_t start = 0;
    while (true) {
        const std::size_t end = text.find('\n', start);
        if (end == std::string::npos) {
            out.write(text.data() + start, static_cast<std::streamsize>(text.size() - start));
            return;
        }
        out.write(text.data() + start, static_cast<std::streamsize>(end - start));
        out << breakAndIndent;
        start = end + 1;
    }
}

std::string dumped(const nlohmann::ordered_json& value) {
    return value.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
}

}  // namespace

ActionFilter ActionFilter::changes() {
    ActionFilter filter;
    for (const auto type : kAllSyncActionTypes) {
        if (type != SyncActionType::preserveUnchangedFile) filter.add(type);
    }
    return filter;
}

ActionFilter ActionFilter::all() {
    ActionFilter filter;
    filter.types_.set();
    return filter;
}

ActionFilter ActionFilter::parse(std::string_view text) {
    if (text == "changes") return changes();
    if (text == "all") return all();
    ActionFilter filter;
    std::size_t start = 0;
    while (start <= text.size()) {
        const std::size_t end = std::min(text.find(',', start), text.size());
        const std::string_view word = text.substr(start, end - start);
        const auto type = parseSyncActionType(word);
        if (!type) {
            std::vector<std::string_view> allowed{"changes", "all"};
            for (const auto t : kAllSyncActionTypes) allowed.push_back(toString(t));
            throw UsageError(trFormat("“{}” is not a valid value for --show. Choose changes, all, or action types "
                                      "separated by commas: {}.",
                                      word, fmt::join(allowed.begin() + 2, allowed.end(), ", ")));
        }
        filter.add(*type);
        start = end + 1;
    }
    return filter;
}

void printConcerns(std::ostream& out, const SafetyGate::Decision& decision) {
    if (decision.concerns.empty()) return;
    out << '\n' << trFormat("Concerns ({})", decision.concerns.size()) << '\n';
    for (const auto& concern : decision.concerns) {
        out << "  [" << toString(concern.severity) << "] " << concern.title << "  (" << concern.id << ")\n";
        out << "      " << concern.detail << '\n';
    }
    if (decision.hasSevereConcern()) {
        out << "  " << trFormat("A severe concern requires typing “{}” before the run can start.",
                                SafetyGate::kConfirmationWord)
            << '\n';
    }
}

void printBlockers(std::ostream& out, const SafetyGate::Decision& decision) {
    if (decision.blockers.empty()) return;
    out << '\n' << tr("Blockers (the run cannot start)") << '\n';
    for (const auto& blocker : decision.blockers) out << "  • " << blocker.message() << '\n';
}

void printPlanTable(std::ostream& out, const SyncPlan& plan, const ActionFilter& filter) {
    const std::int64_t shown = shownCount(plan, filter);
    out << '\n';
    if (filter.listsEverything()) {
        out << trFormat("Actions ({})", plan.actions.size()) << '\n';
    } else {
        out << trFormat("Actions ({} of {} shown; --show all lists every one)", shown, plan.actions.size()) << '\n';
    }
    if (shown == 0) {
        out << "  " << tr("Nothing to list.") << '\n';
        return;
    }

    std::size_t actionWidth = displayWidth(tr("Action"));
    for (const auto type : kAllSyncActionTypes) actionWidth = std::max(actionWidth, displayWidth(label(type)));
    std::size_t pathWidth = displayWidth(tr("Path"));
    for (const auto& action : plan.actions) {
        if (filter.includes(action.type)) {
            pathWidth = std::max(pathWidth, displayWidth(action.relativePath.description()));
            if (pathWidth >= kMaximumPathColumn) break;
        }
    }
    pathWidth = std::min(pathWidth, kMaximumPathColumn);
    out << "  " << padded(tr("Action"), actionWidth + 2) << padded(tr("Path"), pathWidth + 2) << tr("Reason") << '\n';
    std::string line;
    for (const auto& action : plan.actions) {
        if (!filter.includes(action.type)) continue;
        line.assign("  ");
        line += padded(label(action.type), actionWidth + 2);
        line += padded(action.relativePath.description(), pathWidth + 2);
        line += action.reason.text();
        line += '\n';
        out << line;
        if (!out) return;  // the reader went away (a pager that was quit)
    }
}

void printReview(std::ostream& out, const std::string& profileName, const SyncCoordinator::AnalysisOutcome& outcome,
                 const ActionFilter& filter, ReviewParts parts) {
    const SyncPlan& plan = outcome.plan;
    out << trFormat("Plan for “{}” ({})", profileName, displayName(plan.mode)) << '\n';
    Lines heading;
    heading.add(tr("Source"), plan.sourceRoot);
    heading.add(tr("Destination"), plan.destinationRoot);
    if (outcome.archiveRunFolder) {
        heading.add(tr("Archive"), plan.destinationRoot + "/" + std::string(outcome.archiveRunFolder->value()));
    }
    heading.add(tr("Analyzed"), localDateTime(outcome.analyzedAt));
    heading.print(out);
    if (parts.summary) {
        printSummary(out, plan);
        printWarnings(out, plan.warnings);
        printNotes(out, plan.notes);
    }
    printConcerns(out, outcome.decision);
    printBlockers(out, outcome.decision);
    if (parts.plan) printPlanTable(out, plan, filter);
}

nlohmann::ordered_json decisionJSON(const SafetyGate::Decision& decision) {
    nlohmann::ordered_json json;
    json["blockers"] = nlohmann::ordered_json::array();
    for (const auto& blocker : decision.blockers) {
        json["blockers"].push_back({{"code", blocker.code()}, {"message", blocker.message()}});
    }
    json["concerns"] = nlohmann::ordered_json::array();
    for (const auto& concern : decision.concerns) {
        json["concerns"].push_back({{"id", concern.id},
                                    {"severity", toString(concern.severity)},
                                    {"title", concern.title},
                                    {"detail", concern.detail}});
    }
    return json;
}

void writeAnalysisJSON(std::ostream& out, SyncCoordinator::AnalysisOutcome& outcome) {
    // The plan's other fields are written as one block and its actions one by one, so
    // even a plan of many thousands of actions is never held as one document. The
    // actions are lent out of the plan while its other fields are encoded.
    SyncPlan& plan = outcome.plan;
    nlohmann::json head;
    {
        struct Restore {
            SyncPlan& plan;
            std::vector<SyncAction> actions;
            ~Restore() { plan.actions = std::move(actions); }
        } lent{plan, std::move(plan.actions)};
        plan.actions.clear();
        head = plan;
    }
    head.erase("actions");
    out << "{\n  \"plan\": {\n";
    for (auto it = head.begin(); it != head.end(); ++it) {
        out << "    " << nlohmann::json(it.key()).dump() << ": ";
        writeNested(out, dumped(ordered(it.value())), 4);
        out << ",\n";
    }
    out << "    \"actions\": [";
    std::string line;
    for (const auto& action : plan.actions) {  // one compact action per line
        line.assign(&action == plan.actions.data() ? "\n      " : ",\n      ");
        appendCompactJSON(line, action);
        out << line;
    }
    out << (plan.actions.empty() ? "]\n" : "\n    ]\n") << "  },\n  \"decision\": ";
    writeNested(out, dumped(decisionJSON(outcome.decision)), 2);
    out << ",\n  \"confirmationWord\": " << nlohmann::json(std::string(SafetyGate::kConfirmationWord)).dump()
        << "\n}\n";
}

std::string runResultLine(const SyncRunResult& r) {
    std::string line = trFormat("{}: {} files copied, {} updated, {} failed", displayName(r.outcome), r.filesCopied,
                                r.filesUpdated, r.filesFailed);
    if (r.mode == SyncMode::mirror) line += trFormat(", {} items archived", r.itemsArchived);
    line += trFormat("; {} written in {}.", formatByteCount(static_cast<std::int64_t>(r.bytesTransferred)),
                     durationText(r.durationSeconds));
    return line;
}

void printRunResult(std::ostream& out, const SyncRunResult& r, const std::string& logFile,
                    const std::string& reportFile) {
    out << '\n' << trFormat("Result: {}", displayName(r.outcome)) << '\n';
    Lines lines;
    lines.add(tr("Files copied"), std::to_string(r.filesCopied));
    lines.add(tr("Files updated"), std::to_string(r.filesUpdated));
    lines.add(tr("Files skipped"), std::to_string(r.filesSkipped));
    lines.add(tr("Files failed"), std::to_string(r.filesFailed));
    lines.add(tr("Folders created"), std::to_string(r.directoriesCreated));
    if (r.symlinksWritten > 0) lines.add(tr("Links written"), std::to_string(r.symlinksWritten));
    if (r.mode == SyncMode::mirror) {
        lines.add(tr("Items archived"), trFormat("{} ({})", r.itemsArchived,
                                                 formatByteCount(static_cast<std::int64_t>(r.bytesArchived))));
    }
    std::string written = trFormat("{} in {}", formatByteCount(static_cast<std::int64_t>(r.bytesTransferred)),
                                   durationText(r.durationSeconds));
    if (r.averageBytesPerSecond >= 1) {
        written += r.peakBytesPerSecond >= 1 ? trFormat(" (average {}, peak {})", speedText(r.averageBytesPerSecond),
                                                        speedText(r.peakBytesPerSecond))
                                             : trFormat(" (average {})", speedText(r.averageBytesPerSecond));
    }
    lines.add(tr("Bytes written"), written);
    if (r.verification == VerificationMode::verifyCopiedFiles) {
        lines.add(tr("Verification"), trFormat("{} files verified, {} failures", r.filesVerified, r.verificationFailures));
    }
    const DurabilitySummary& d = r.durability;
    std::string durability = trFormat("{}: {} durably committed", displayName(d.mode), d.filesDurablyCommitted);
    if (d.filesWrittenFastMode > 0) durability += trFormat(", {} written without flushing", d.filesWrittenFastMode);
    if (d.filesUncertainDurability > 0) durability += trFormat(", {} uncertain", d.filesUncertainDurability);
    if (d.fileFlushFailures > 0) durability += trFormat(", {} flush failures", d.fileFlushFailures);
    if (d.fullFlushUnsupportedCount > 0) {
        durability += trFormat(", {} with the weaker flush", d.fullFlushUnsupportedCount);
    }
    if (const auto average = d.averageFlushMilliseconds()) {
        durability += trFormat("; average flush {:.1f} ms", *average);
    }
    lines.add(tr("Durability"), durability);
    lines.print(out);

    printWarnings(out, r.warnings);
    if (!r.errors.empty()) {
        out << '\n' << trFormat("Errors ({})", r.filesFailed > 0 ? static_cast<std::size_t>(r.filesFailed) : r.errors.size())
            << '\n';
        for (const auto& error : r.errors) {
            out << "  • " << (error.relativePath ? error.relativePath->description() + ": " : std::string())
                << error.message << '\n';
        }
    }
    out << '\n';
    Lines files;
    if (!logFile.empty()) files.add(tr("Log"), logFile);
    if (!reportFile.empty()) files.add(tr("Report"), reportFile);
    files.print(out, "");
}

nlohmann::ordered_json runResultJSON(const SyncRunResult& result, const std::string& logFile,
                                     const std::string& reportFile) {
    nlohmann::ordered_json json = toJSON(result);
    if (!logFile.empty()) json["logFile"] = logFile;
    if (!reportFile.empty()) json["reportFile"] = reportFile;
    return json;
}

}  // namespace varnel::cli
