// profile add, list, show, edit and remove.

#include "common/ByteCount.hpp"
#include "common/Localization.hpp"
#include "varnel-sync/Commands.hpp"
#include "varnel-sync/Output.hpp"
#include "varnel-sync/ProfileOptions.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>

namespace varnel::cli {

namespace {

std::string lowered(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
    return text;
}

std::string trimmed(const std::string& text) {
    const auto first = text.find_first_not_of(" \t\r\n");
    if (first == std::string::npos) return {};
    return text.substr(first, text.find_last_not_of(" \t\r\n") - first + 1);
}

void requireUniqueName(Context& context, const std::string& name, const std::optional<Uuid>& except) {
    if (trimmed(name).empty()) throw UsageError(tr("The profile needs a name."));
    for (const auto& profile : context.application().profiles()) {
        if (profile.id != except && lowered(profile.name) == lowered(name)) {
            throw UsageError(trFormat("A profile named “{}” already exists. Choose another name.", profile.name));
        }
    }
}

void chooseFolder(Context& context, SyncProfile& profile, EndpointRole role, const std::string& folder) {
    try {
        context.application().chooseFolder(profile, role, folder);
    } catch (const SyncError& error) {
        throw UsageError(error.message());  // the folder must exist: its volume is recorded now
    }
}

void requireValid(const SyncProfile& profile) {
    if (const auto problems = profile.validationProblems(); !problems.empty()) {
        throw UsageError(fmt::format("{}", fmt::join(problems, " ")));
    }
}

nlohmann::ordered_json profileJSON(const SyncProfile& profile) {
    return ordered(nlohmann::json(profile));
}

std::string folderText(const std::string& path, const std::optional<VolumeIdentity>& volume) {
    if (path.empty()) return tr("(none chosen)");
    if (!volume) return path;
    return fmt::format("{}\n{}", path,
                       trFormat("    volume {}: {}", volume->volumeName.value_or(tr("without a name")),
                                identityConfirmationDescription(*volume)));
}

std::string lastRunText(const SyncProfile& profile) {
    if (!profile.lastSyncDate) return tr("never");
    std::string text = localDateTime(*profile.lastSyncDate);
    if (profile.lastResult) text += ", " + displayName(*profile.lastResult);
    if (profile.lastFilesTransferred) {
        text += trFormat(", {} files ({})", *profile.lastFilesTransferred,
                         formatByteCount(profile.lastBytesTransferred.value_or(0)));
    }
    return text;
}

// --- add -----------------------------------------------------------------------------

struct AddArguments {
    std::string name;
    std::string source;
    std::string destination;
    ProfileOptionValues options;
};

ExitCode addCommand(Context& context, const AddArguments& arguments) {
    SyncApplication& application = context.application();
    requireUniqueName(context, arguments.name, std::nullopt);
    SyncProfile profile = application.makeProfile();
    profile.name = arguments.name;
    chooseFolder(context, profile, EndpointRole::source, arguments.source);
    chooseFolder(context, profile, EndpointRole::destination, arguments.destination);
    applyProfileOptions(arguments.options, profile, context.now());
    profile.createdAt = profile.modifiedAt = std::chrono::floor<std::chrono::seconds>(context.now());
    requireValid(profile);
    application.add(profile);
    if (context.json()) {
        writeJSON(context.out(), profileJSON(profile));
    } else {
        context.out() << profile.id.string() << '\n';
    }
    return ExitCode::ok;
}

// --- list ----------------------------------------------------------------------------

ExitCode listCommand(Context& context) {
    const auto profiles = context.application().profiles();
    if (context.json()) {
        nlohmann::ordered_json list = nlohmann::ordered_json::array();
        for (const auto& profile : profiles) list.push_back(profileJSON(profile));
        writeJSON(context.out(), {{"profiles", list}});
        return ExitCode::ok;
    }
    std::ostream& out = context.out();
    if (profiles.empty()) {
        if (!context.quiet()) {
            out << tr("No profiles yet. Add one with “varnel-sync profile add NAME --source DIR --destination DIR”.")
                << '\n';
        }
        return ExitCode::ok;
    }
    std::vector<std::array<std::string, 5>> rows;
    rows.push_back({tr("Name"), tr("Mode"), tr("Schedule"), tr("Last run"), tr("Source → Destination")});
    for (const auto& p : profiles) {
        rows.push_back({p.name, displayName(p.mode), scheduleText(p.schedule), lastRunText(p),
                        p.sourceDisplayPath + " → " + p.destinationDisplayPath});
    }
    std::array<std::size_t, 4> widths{};
    for (const auto& row : rows) {
        for (std::size_t i = 0; i < widths.size(); ++i) widths[i] = std::max(widths[i], displayWidth(row[i]));
    }
    for (const auto& row : rows) {
        for (std::size_t i = 0; i < widths.size(); ++i) out << padded(row[i], widths[i] + 2);
        out << row[4] << '\n';
    }
    return ExitCode::ok;
}

// --- show ----------------------------------------------------------------------------

ExitCode showCommand(Context& context, const std::string& nameOrID) {
    const SyncProfile p = findProfile(context, nameOrID);
    if (context.json()) {
        writeJSON(context.out(), profileJSON(p));
        return ExitCode::ok;
    }
    std::vector<std::pair<std::string, std::string>> rows;
    rows.emplace_back(tr("ID"), p.id.string());
    rows.emplace_back(tr("Source"), folderText(p.sourceDisplayPath, p.sourceVolume));
    rows.emplace_back(tr("Destination"), folderText(p.destinationDisplayPath, p.destinationVolume));
    rows.emplace_back(tr("Mode"), p.mode == SyncMode::mirror
                                      ? displayName(p.mode) + " — " + mirrorNeverDeletesNote()
                                      : displayName(p.mode));
    rows.emplace_back(tr("Durability"), displayName(p.durability) + " — " + speedImpact(p.durability));
    rows.emplace_back(tr("Verification"), displayName(p.verification));
    rows.emplace_back(tr("Metadata"), displayName(p.metadataPolicy));
    rows.emplace_back(tr("Hidden items"), displayName(p.hiddenFilePolicy));
    rows.emplace_back(tr("Online-only files"), optionLabel(p.onlineOnlyFiles));
    std::string exclusions;
    for (const auto& rule : p.exclusionRules) {
        if (!exclusions.empty()) exclusions += '\n';
        exclusions += fmt::format("{} ({}{}:{}){}", rule.description(),
                                  rule.caseSensitive ? "case-sensitive " : "", exclusionKindWord(rule.kind), rule.value,
                                  rule.isEnabled ? "" : tr(", disabled"));
    }
    rows.emplace_back(tr("Exclusions"), exclusions.empty() ? tr("none") : exclusions);
    const SafetyThresholds& t = p.safetyThresholds;
    rows.emplace_back(tr("Confirm archiving"),
                      trFormat("above {} items, {:.0f}% of the destination, or {}", t.maxItemsBeforeWarning,
                               std::round(t.maxFractionBeforeWarning * 100), formatByteCount(t.maxBytesBeforeWarning)));
    std::string schedule = scheduleText(p.schedule);
    if (const auto next = p.schedule.nextRunDate(p.lastSyncDate)) {
        schedule += trFormat(" (next run {})", localDateTime(*next));
    }
    rows.emplace_back(tr("Schedule"), schedule);
    rows.emplace_back(tr("Last analysis"), p.lastAnalysisDate ? localDateTime(*p.lastAnalysisDate) : tr("never"));
    rows.emplace_back(tr("Last run"), lastRunText(p));
    if (p.lastRunID) rows.emplace_back(tr("Last run ID"), p.lastRunID->string());
    rows.emplace_back(tr("Created"), localDateTime(p.createdAt));
    rows.emplace_back(tr("Modified"), localDateTime(p.modifiedAt));

    std::size_t width = 0;
    for (const auto& row : rows) width = std::max(width, displayWidth(row.first));
    std::ostream& out = context.out();
    out << p.name << '\n';
    for (const auto& [label, value] : rows) {
        std::string text = value;
        std::string continuation = "\n" + std::string(width + 4, ' ');
        for (std::size_t at = text.find('\n'); at != std::string::npos; at = text.find('\n', at + continuation.size())) {
            text.replace(at, 1, continuation);
        }
        out << "  " << padded(label, width + 2) << text << '\n';
    }
    if (const auto problems = p.validationProblems(); !problems.empty()) {
        out << tr("Problems") << '\n';
        for (const auto& problem : problems) out << "  • " << problem << '\n';
    }
    return ExitCode::ok;
}

// --- edit ----------------------------------------------------------------------------

struct EditArguments {
    std::string profile;
    std::string name;
    std::string source;
    std::string destination;
    CLI::Option* nameOption = nullptr;
    CLI::Option* sourceOption = nullptr;
    CLI::Option* destinationOption = nullptr;
    ProfileOptionValues options;
};

ExitCode editCommand(Context& context, const EditArguments& arguments) {
    const bool rename = arguments.nameOption->count() > 0;
    const bool newSource = arguments.sourceOption->count() > 0;
    const bool newDestination = arguments.destinationOption->count() > 0;
    if (!rename && !newSource && !newDestination && !arguments.options.any()) {
        throw UsageError(tr("Nothing to change: give --name, --source, --destination or a profile option "
                            "(see “varnel-sync profile edit --help”)."));
    }
    SyncProfile profile = findProfile(context, arguments.profile);
    if (rename) {
        requireUniqueName(context, arguments.name, profile.id);
        profile.name = arguments.name;
    }
    if (newSource) chooseFolder(context, profile, EndpointRole::source, arguments.source);
    if (newDestination) chooseFolder(context, profile, EndpointRole::destination, arguments.destination);
    applyProfileOptions(arguments.options, profile, context.now());
    requireValid(profile);
    context.application().update(profile);
    if (context.json()) {
        writeJSON(context.out(), profileJSON(*context.application().find(profile.id.string())));
    } else if (!context.quiet()) {
        context.out() << trFormat("Saved profile “{}”.", profile.name) << '\n';
    }
    return ExitCode::ok;
}

// --- remove --------------------------------------------------------------------------

ExitCode removeCommand(Context& context, const std::string& nameOrID) {
    const SyncProfile profile = findProfile(context, nameOrID);
    context.application().remove(profile.id);
    if (context.json()) {
        writeJSON(context.out(), {{"removed", profile.id.string()}, {"name", profile.name}});
    } else if (!context.quiet()) {
        context.out() << trFormat("Removed profile “{}”. Its archive and run logs stay where they are.", profile.name)
                      << '\n';
    }
    return ExitCode::ok;
}

}  // namespace

SyncProfile findProfile(Context& context, const std::string& nameOrID) {
    SyncApplication& application = context.application();
    if (auto found = application.find(nameOrID)) return *found;
    const auto profiles = application.profiles();
    const auto sameName = std::count_if(profiles.begin(), profiles.end(), [&](const SyncProfile& p) {
        return lowered(p.name) == lowered(nameOrID);
    });
    if (sameName > 1) {
        throw UsageError(trFormat("Several profiles are named “{}”. Use the profile's id instead (see “varnel-sync "
                                  "profile list --json”).",
                                  nameOrID));
    }
    throw UsageError(trFormat("No profile is named “{}” or has that id. “varnel-sync profile list” shows them.",
                              nameOrID));
}

void addProfileCommands(CLI::App& app, Dispatch& dispatch) {
    CLI::App* profile = app.add_subcommand("profile", tr("Create, list, show, edit and remove profiles."));
    profile->require_subcommand(1);

    auto add = std::make_shared<AddArguments>();
    CLI::App* addCommandLine = profile->add_subcommand(
        "add", tr("Create a profile from the new-profile settings and print its id. Both folders must exist."));
    addCommandLine->add_option("NAME", add->name, tr("the profile's name"))->required();
    addCommandLine->add_option("--source", add->source, tr("the folder that is only ever read"))
        ->type_name("DIR")
        ->required();
    addCommandLine->add_option("--destination", add->destination, tr("the only folder that is written"))
        ->type_name("DIR")
        ->required();
    addProfileOptions(*addCommandLine, add->options);
    addCommandLine->callback([&dispatch, add] {
        dispatch.action = [add](Context& context) { return addCommand(context, *add); };
    });

    CLI::App* list = profile->add_subcommand("list", tr("List the profiles."));
    list->callback([&dispatch] { dispatch.action = [](Context& context) { return listCommand(context); }; });

    auto shown = std::make_shared<std::string>();
    CLI::App* show = profile->add_subcommand("show", tr("Show every setting of a profile."));
    show->add_option("PROFILE", *shown, tr("the profile's name or id"))->required();
    show->callback([&dispatch, shown] {
        dispatch.action = [shown](Context& context) { return showCommand(context, *shown); };
    });

    auto edit = std::make_shared<EditArguments>();
    CLI::App* editCommandLine = profile->add_subcommand(
        "edit", tr("Change a profile. A new folder has its volume recorded again."));
    editCommandLine->add_option("PROFILE", edit->profile, tr("the profile's name or id"))->required();
    edit->nameOption = editCommandLine->add_option("--name", edit->name, tr("a new name"))->type_name("NAME");
    edit->sourceOption =
        editCommandLine->add_option("--source", edit->source, tr("a new source folder"))->type_name("DIR");
    edit->destinationOption =
        editCommandLine->add_option("--destination", edit->destination, tr("a new destination folder"))
            ->type_name("DIR");
    addProfileOptions(*editCommandLine, edit->options);
    editCommandLine->callback([&dispatch, edit] {
        dispatch.action = [edit](Context& context) { return editCommand(context, *edit); };
    });

    auto removed = std::make_shared<std::string>();
    CLI::App* remove = profile->add_subcommand(
        "remove", tr("Remove a profile. Its archive folders and run logs are kept."));
    remove->add_option("PROFILE", *removed, tr("the profile's name or id"))->required();
    remove->callback([&dispatch, removed] {
        dispatch.action = [removed](Context& context) { return removeCommand(context, *removed); };
    });
}

}  // namespace varnel::cli
