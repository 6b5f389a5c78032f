// analyze, sync and run-due: the commands that analyse a profile (a saved one, or a
// one-off pair of folders) and carry out the reviewed plan.

#include "common/Localization.hpp"
#include "plan/SafetyGate.hpp"
#include "varnel-sync/Commands.hpp"
#include "varnel-sync/DestinationLock.hpp"
#include "varnel-sync/Output.hpp"
#include "varnel-sync/ProfileOptions.hpp"
#include "varnel-sync/Progress.hpp"
#include "varnel-sync/Review.hpp"

#include <uuid/uuid.h>

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cstring>

namespace varnel::cli {

namespace {

using AnalysisOutcome = SyncCoordinator::AnalysisOutcome;

// The namespace of the name-based ids of one-off runs: the same two folders always give
// the same id, so repeated one-off Mirror runs of one pair share one archive folder.
constexpr std::array<unsigned char, 16> kOneOffNamespace{0x6f, 0x2d, 0x1b, 0x8e, 0x4c, 0x93, 0x4a, 0x57,
                                                         0x9d, 0x0e, 0x35, 0xc2, 0x71, 0xa4, 0x58, 0xf6};

Uuid oneOffProfileID(const std::string& canonicalSource, const std::string& canonicalDestination) {
    std::string name = canonicalSource;
    name.push_back('\0');  // no path holds a NUL, so no two pairs give the same name
    name += canonicalDestination;
    uuid_t ns;
    uuid_t id;
    std::memcpy(ns, kOneOffNamespace.data(), sizeof ns);
    uuid_generate_sha1(id, ns, name.data(), name.size());
    std::array<std::uint8_t, 16> bytes{};
    std::memcpy(bytes.data(), id, bytes.size());
    return Uuid(bytes);
}

// A saved profile (PROFILE) or a one-off pair of folders with profile options.
struct TargetArguments {
    std::string profile;
    std::string source;
    std::string destination;
    CLI::Option* profileOption = nullptr;
    CLI::Option* sourceOption = nullptr;
    CLI::Option* destinationOption = nullptr;
    ProfileOptionValues options;
};

void addTarget(CLI::App& command, TargetArguments& arguments) {
    arguments.profileOption = command.add_option("PROFILE", arguments.profile, tr("the profile's name or id"));
    arguments.sourceOption = command.add_option("--source", arguments.source,
                                                tr("one-off run without a saved profile: the source folder"))
                                 ->type_name("DIR");
    arguments.destinationOption = command.add_option("--destination", arguments.destination,
                                                     tr("one-off run: the destination folder"))
                                      ->type_name("DIR");
    addProfileOptions(command, arguments.options);
}

struct Target {
    SyncProfile profile;
    bool oneOff = false;
};

Target resolveTarget(Context& context, const TargetArguments& arguments) {
    const bool named = arguments.profileOption->count() > 0;
    const bool folders = arguments.sourceOption->count() > 0 || arguments.destinationOption->count() > 0;
    if (named && (folders || arguments.options.any())) {
        throw UsageError(tr("Give either a profile, or --source and --destination with profile options for a one-off "
                            "run, not both. Change a saved profile with “varnel-sync profile edit”."));
    }
    if (named) return {findProfile(context, arguments.profile), false};
    if (arguments.sourceOption->count() == 0 || arguments.destinationOption->count() == 0) {
        throw UsageError(tr("Name a profile, or give both --source and --destination for a one-off run."));
    }
    SyncApplication& application = context.application();
    SyncProfile profile = application.makeProfile();
    try {
        application.chooseFolder(profile, EndpointRole::source, arguments.source);
        application.chooseFolder(profile, EndpointRole::destination, arguments.destination);
    } catch (const SyncError& error) {
        throw UsageError(error.message());
    }
    applyProfileOptions(arguments.options, profile, context.now());
    profile.id = oneOffProfileID(profile.sourceDisplayPath, profile.destinationDisplayPath);
    profile.name = trFormat("One-off: {} → {}", profile.sourceDisplayPath, profile.destinationDisplayPath);
    profile.createdAt = profile.modifiedAt = std::chrono::floor<std::chrono::seconds>(context.now());
    if (const auto problems = profile.validationProblems(); !problems.empty()) {
        throw UsageError(fmt::format("{}", fmt::join(problems, " ")));
    }
    return {std::move(profile), true};
}

// Gives the folders' access back when the command is done with an analysis.
struct ScopeRelease {
    std::shared_ptr<AccessScope> scope;
    ~ScopeRelease() {
        if (scope) scope->release();
    }
};

AnalysisOutcome analyzeTarget(Context& context, const Target& target, ProgressLine& progress) {
    context.failureExitCode = ExitCode::analysisFailed;
    SyncApplication& application = context.application();
    const auto handler = [&progress](const SyncCoordinator::AnalysisProgress& p) { progress.analysis(p); };
    const std::stop_token stop = context.io().interruption->token();
    AnalysisOutcome outcome = target.oneOff ? application.coordinator().analyze(target.profile, handler, stop)
                                            : application.analyze(target.profile.id, handler, stop);
    progress.clear();
    return outcome;
}

std::string lowered(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
    return text;
}

// Asks on the terminal for what the flags did not give: each concern acknowledged and,
// for a severe one, the confirmation word typed. False as soon as the user declines.
bool askForConfirmation(Context& context, const SafetyGate::Decision& decision, Confirmation& confirmation) {
    Interruption& interruption = *context.io().interruption;
    interruption.setExitsAtOnce(true);
    struct Reset {
        Interruption& interruption;
        ~Reset() { interruption.setExitsAtOnce(false); }
    } reset{interruption};

    std::ostream& err = context.err();
    std::istream& in = context.io().in;
    for (const auto& concern : decision.concerns) {
        if (confirmation.acknowledgedConcernIDs.contains(concern.id)) continue;
        err << trFormat("Acknowledge “{}”? [y/N] ", concern.title) << std::flush;
        std::string answer;
        if (!std::getline(in, answer)) return false;
        answer = lowered(answer);
        if (answer != "y" && answer != "yes") return false;
        confirmation.acknowledgedConcernIDs.insert(concern.id);
    }
    if (decision.hasSevereConcern() && !SafetyGate::isSatisfied(decision, confirmation)) {
        err << trFormat("Type {} to start the run: ", SafetyGate::kConfirmationWord) << std::flush;
        std::string typed;
        if (!std::getline(in, typed)) return false;
        confirmation.typedPhrase = typed;
    }
    return SafetyGate::isSatisfied(decision, confirmation);
}

// What a terminal-less run must be given on the command line to satisfy the decision.
std::string confirmationHint(const std::string& target, const SafetyGate::Decision& decision) {
    std::vector<std::string> ids;
    for (const auto& concern : decision.concerns) ids.push_back(concern.id);
    std::string hint = trFormat("To run it without a terminal: varnel-sync sync {} --acknowledge {}", target,
                                fmt::join(ids, ","));
    if (decision.hasSevereConcern()) hint += trFormat(" --confirm {}", SafetyGate::kConfirmationWord);
    return hint;
}

ExitCode exitCodeOf(const SyncRunResult& result) {
    switch (result.outcome) {
        case SyncRunOutcome::cancelled: return ExitCode::cancelled;
        case SyncRunOutcome::failed: return ExitCode::runFailed;
        case SyncRunOutcome::success:
        case SyncRunOutcome::completedWithWarnings: break;
    }
    return result.filesFailed > 0 || !result.errors.empty() ? ExitCode::itemsFailed : ExitCode::ok;
}

struct LogFiles {
    std::string log;
    std::string report;
};

LogFiles logFilesOf(SyncApplication& application, const SyncRunResult& result) {
    if (!result.logFileName) return {};
    return {application.logStore().logPath(result.id), application.logStore().reportPath(result.id)};
}

// Carries out an analysed and confirmed target. Refusals of the coordinator become
// their exit statuses; nothing was written when it refuses.
SyncCoordinator::Synchronization synchronizeTarget(Context& context, const Target& target, AnalysisOutcome& outcome,
                                                   const Confirmation& confirmation, ProgressLine& progress) {
    context.failureExitCode = ExitCode::runFailed;
    SyncApplication& application = context.application();
    CancellationFlag& flag = context.io().interruption->flag();
    const auto handler = [&progress](const TransferProgress& p) { progress.transfer(p); };
    try {
        auto synchronization = target.oneOff
                                   ? application.coordinator().synchronize(outcome, target.profile, confirmation, flag,
                                                                           handler)
                                   : application.synchronize(outcome, confirmation, flag, handler);
        progress.clear();
        return synchronization;
    } catch (const SyncError& error) {
        if (error.is<SyncError::ConfirmationRequired>()) {
            throw CommandFailure(ExitCode::confirmationRequired, error.message(), error.code());
        }
        if (error.is<SyncError::Cancelled>()) throw;
        if (error.is<SyncError::PlanIsStale>() ||
            std::find(outcome.decision.blockers.begin(), outcome.decision.blockers.end(), error) !=
                outcome.decision.blockers.end()) {
            throw CommandFailure(ExitCode::analysisFailed, error.message(), error.code());
        }
        throw;
    }
}

// --- analyze -------------------------------------------------------------------------

struct AnalyzeArguments {
    TargetArguments target;
    std::string show;
    CLI::Option* showOption = nullptr;
};

ExitCode analyzeCommand(Context& context, const AnalyzeArguments& arguments) {
    const ActionFilter filter =
        arguments.showOption->count() > 0 ? ActionFilter::parse(arguments.show) : ActionFilter::changes();
    const Target target = resolveTarget(context, arguments.target);
    ProgressLine progress(context.err(), context.showsProgress(), context.io().terminal.columns);
    AnalysisOutcome outcome = analyzeTarget(context, target, progress);
    ScopeRelease release{outcome.accessScope};
    if (context.json()) {
        writeAnalysisJSON(context.out(), outcome);
    } else {
        Pager pager(context);
        printReview(pager.stream(), target.profile.name, outcome, filter, {.summary = !context.quiet(), .plan = true});
    }
    context.keepUntilExit(std::make_shared<AnalysisOutcome>(std::move(outcome)));
    return ExitCode::ok;
}

// --- sync ----------------------------------------------------------------------------

struct SyncArguments {
    TargetArguments target;
    std::vector<std::string> acknowledge;
    bool acknowledgeAll = false;
    std::string confirm;
    CLI::Option* confirmOption = nullptr;
    std::string show;
    CLI::Option* showOption = nullptr;
};

ExitCode syncCommand(Context& context, const SyncArguments& arguments) {
    const ActionFilter filter =
        arguments.showOption->count() > 0 ? ActionFilter::parse(arguments.show) : ActionFilter::changes();
    context.application(true);  // watches for an unmounted drive during the run
    const Target target = resolveTarget(context, arguments.target);

    const DestinationLock lock(target.profile.destinationDisplayPath);
    if (lock.state() == DestinationLock::State::busy) {
        throw CommandFailure(ExitCode::analysisFailed,
                             trFormat("Another Varnel Sync run is writing to “{}”. Try again when it has finished.",
                                      target.profile.destinationDisplayPath),
                             "destination_busy");
    }

    ProgressLine progress(context.err(), context.showsProgress(), context.io().terminal.columns);
    AnalysisOutcome outcome = analyzeTarget(context, target, progress);
    ScopeRelease release{outcome.accessScope};
    const SafetyGate::Decision& decision = outcome.decision;

    if (!context.quiet()) {
        if (context.json()) {
            printReview(context.err(), target.profile.name, outcome, filter);
        } else {
            Pager pager(context);
            printReview(pager.stream(), target.profile.name, outcome, filter);
        }
    } else if (context.canPrompt()) {
        printConcerns(context.err(), decision);  // what the questions below are about
    }
    if (!decision.blockers.empty()) {
        const SyncError& first = decision.blockers.front();
        throw CommandFailure(ExitCode::analysisFailed, first.message(), first.code(),
                             {{"decision", decisionJSON(decision)}});
    }

    Confirmation confirmation;
    for (const auto& list : arguments.acknowledge) {
        std::size_t start = 0;
        while (start <= list.size()) {
            const std::size_t end = std::min(list.find(',', start), list.size());
            if (end > start) confirmation.acknowledgedConcernIDs.insert(list.substr(start, end - start));
            start = end + 1;
        }
    }
    if (arguments.acknowledgeAll) {
        for (const auto& concern : decision.concerns) confirmation.acknowledgedConcernIDs.insert(concern.id);
    }
    if (arguments.confirmOption->count() > 0) confirmation.typedPhrase = arguments.confirm;

    if (!decision.concerns.empty() && !SafetyGate::isSatisfied(decision, confirmation)) {
        const std::string required = SyncError(SyncError::ConfirmationRequired{}).message();
        if (!context.canPrompt()) {
            const std::string name = target.oneOff ? "--source … --destination …" : shellWord(target.profile.name);
            throw CommandFailure(ExitCode::confirmationRequired,
                                 required + " " + tr("Nothing was written.") + "\n" + confirmationHint(name, decision),
                                 "confirmation_required", {{"decision", decisionJSON(decision)}});
        }
        context.err() << '\n';
        if (!askForConfirmation(context, decision, confirmation)) {
            throw CommandFailure(ExitCode::confirmationRequired, required + " " + tr("Nothing was written."),
                                 "confirmation_required", {{"decision", decisionJSON(decision)}});
        }
    }

    const auto synchronization = synchronizeTarget(context, target, outcome, confirmation, progress);
    const SyncRunResult& result = synchronization.result;
    const LogFiles files = logFilesOf(context.application(), result);
    if (synchronization.logFailure) context.err() << "varnel-sync: " << synchronization.logFailure->message() << '\n';
    if (context.json()) {
        writeJSON(context.out(), runResultJSON(result, files.log, files.report));
    } else if (context.quiet()) {
        context.out() << runResultLine(result) << '\n';
    } else {
        printRunResult(context.out(), result, files.log, files.report);
    }
    return exitCodeOf(result);
}

// --- run-due -------------------------------------------------------------------------

// The worse of two statuses, so one failing profile is not hidden by another's success.
ExitCode worse(ExitCode a, ExitCode b) {
    if (a == ExitCode::cancelled || b == ExitCode::cancelled) return ExitCode::cancelled;
    return toInt(a) >= toInt(b) ? a : b;
}

ExitCode runDueCommand(Context& context) {
    SyncApplication& application = context.application(true);
    const Date now = context.now();
    std::ostream& out = context.human();
    nlohmann::ordered_json runs = nlohmann::ordered_json::array();
    ExitCode status = ExitCode::ok;

    for (const SyncProfile& profile : application.profiles()) {
        const auto due = profile.schedule.nextRunDate(profile.lastSyncDate);
        if (!due || *due > now) continue;
        if (context.io().interruption->isInterrupted()) return ExitCode::cancelled;

        nlohmann::ordered_json entry;
        entry["profileID"] = profile.id.string();
        entry["profileName"] = profile.name;
        entry["dueAt"] = formatISO8601(*due);
        if (!context.quiet()) out << trFormat("“{}” is due ({}).", profile.name, scheduleText(profile.schedule)) << '\n';
        const auto report = [&](const char* statusWord, ExitCode code, const std::string& message) {
            entry["status"] = statusWord;
            if (!message.empty()) entry["message"] = message;
            status = worse(status, code);
            if (!message.empty()) out << "  " << message << '\n';
        };

        const Target target{profile, false};
        const DestinationLock lock(profile.destinationDisplayPath);
        if (lock.state() == DestinationLock::State::busy) {
            report("busy", ExitCode::analysisFailed,
                   trFormat("Not started: another Varnel Sync run is writing to “{}”.", profile.destinationDisplayPath));
            runs.push_back(std::move(entry));
            continue;
        }
        ProgressLine progress(context.err(), false, 0);
        try {
            AnalysisOutcome outcome = analyzeTarget(context, target, progress);
            ScopeRelease release{outcome.accessScope};
            const SafetyGate::Decision& decision = outcome.decision;
            entry["decision"] = decisionJSON(decision);
            if (!decision.blockers.empty()) {
                report("refused", ExitCode::analysisFailed,
                       trFormat("Not started: {}", decision.blockers.front().message()));
            } else if (decision.hasSevereConcern()) {
                std::vector<std::string> titles;
                for (const auto& concern : decision.concerns) {
                    if (concern.severity == SafetyGate::Severity::severe) titles.push_back(concern.title);
                }
                report("needsReview", ExitCode::confirmationRequired,
                       trFormat("Needs review, not started: {}. Run “varnel-sync sync {}” to review and confirm it.",
                                fmt::join(titles, "; "), shellWord(profile.name)));
            } else {
                // Unattended: advisory concerns are accepted, and said so in the output.
                Confirmation confirmation;
                for (const auto& concern : decision.concerns) {
                    confirmation.acknowledgedConcernIDs.insert(concern.id);
                    if (!context.quiet()) out << "  " << trFormat("Acknowledged: {} ({})", concern.title, concern.id) << '\n';
                }
                const auto synchronization = synchronizeTarget(context, target, outcome, confirmation, progress);
                const SyncRunResult& result = synchronization.result;
                const LogFiles files = logFilesOf(application, result);
                entry["result"] = runResultJSON(result, files.log, files.report);
                report("completed", exitCodeOf(result), runResultLine(result));
                if (!files.report.empty() && !context.quiet()) out << "  " << trFormat("Report: {}", files.report) << '\n';
                if (synchronization.logFailure) out << "  " << synchronization.logFailure->message() << '\n';
            }
        } catch (const SyncError& error) {
            if (error.is<SyncError::Cancelled>()) throw;
            const bool duringRun = context.failureExitCode == ExitCode::runFailed;
            report(duringRun ? "runFailed" : "analysisFailed", context.failureExitCode,
                   duringRun ? trFormat("The run failed: {}", error.message())
                             : trFormat("Analysis failed: {}", error.message()));
        } catch (const CommandFailure& failure) {
            report("refused", failure.exitCode(), failure.what());
        }
        runs.push_back(std::move(entry));
    }

    if (runs.empty() && !context.quiet()) out << tr("No profile is due.") << '\n';
    if (context.json()) writeJSON(context.out(), {{"checkedAt", formatISO8601(now)}, {"runs", runs}});
    return status;
}

}  // namespace

void addSyncCommands(CLI::App& app, Dispatch& dispatch) {
    auto analyzeArguments = std::make_shared<AnalyzeArguments>();
    CLI::App* analyze = app.add_subcommand(
        "analyze", tr("Scan both folders and show the plan, its warnings and concerns. Writes nothing."));
    addTarget(*analyze, analyzeArguments->target);
    analyzeArguments->showOption =
        analyze->add_option("--show", analyzeArguments->show,
                            tr("which actions to list: changes (default), all, or action types such as "
                               "copyNewFile,archiveDestinationItem"))
            ->type_name("WHICH");
    analyze->callback([&dispatch, analyzeArguments] {
        dispatch.action = [analyzeArguments](Context& context) { return analyzeCommand(context, *analyzeArguments); };
    });

    auto syncArguments = std::make_shared<SyncArguments>();
    CLI::App* sync = app.add_subcommand(
        "sync", tr("Analyse, show the review, and synchronise once the concerns are acknowledged."));
    addTarget(*sync, syncArguments->target);
    sync->add_option("--acknowledge", syncArguments->acknowledge,
                     tr("acknowledge these concerns by id (comma-separated, repeatable)"))
        ->type_name("ID[,ID…]")
        ->allow_extra_args(false);
    sync->add_flag("--acknowledge-all", syncArguments->acknowledgeAll, tr("acknowledge every concern"));
    syncArguments->confirmOption =
        sync->add_option("--confirm", syncArguments->confirm,
                         trFormat("the confirmation word ({}) a severe concern asks for", SafetyGate::kConfirmationWord))
            ->type_name("WORD");
    syncArguments->showOption =
        sync->add_option("--show", syncArguments->show, tr("which actions the review lists (as for analyze)"))
            ->type_name("WHICH");
    sync->callback([&dispatch, syncArguments] {
        dispatch.action = [syncArguments](Context& context) { return syncCommand(context, *syncArguments); };
    });

    CLI::App* runDue = app.add_subcommand(
        "run-due", tr("Run every profile whose schedule is due, unattended (for a systemd user timer). Runs with "
                      "blockers or severe concerns are not started and are reported as needing review."));
    runDue->callback([&dispatch] { dispatch.action = [](Context& context) { return runDueCommand(context); }; });
}

}  // namespace varnel::cli
