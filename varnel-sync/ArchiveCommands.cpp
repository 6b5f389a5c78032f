// archive list, items and delete: the Mirror archive of a profile's destination.

#include "archive/ArchiveLayout.hpp"
#include "archive/ArchiveManager.hpp"
#include "common/ByteCount.hpp"
#include "common/Localization.hpp"
#include "scan/POSIXFileError.hpp"
#include "varnel-sync/Commands.hpp"
#include "varnel-sync/DestinationLock.hpp"
#include "varnel-sync/Output.hpp"

#include <cerrno>
#include <optional>

namespace varnel::cli {

namespace {

EndpointRoot openDestination(Context& context, const SyncProfile& profile) {
    if (profile.destinationDisplayPath.empty()) throw UsageError(tr("Choose a destination folder."));
    try {
        return context.application().fileSystem().openRoot(profile.destinationDisplayPath);
    } catch (const POSIXFileError&) {
        throw SyncError(SyncError::EndpointNotFound{EndpointRole::destination, profile.destinationDisplayPath});
    }
}

std::string runName(const ArchiveRun& run) {
    return std::string(run.relativePath.lastComponent());
}

std::string absolutePath(const SyncProfile& profile, const RelativePath& path) {
    return profile.destinationDisplayPath + "/" + std::string(path.value());
}

// The run folder RUN names: its folder name, or its whole path below the destination.
RelativePath runFolderOf(const SyncProfile& profile, const std::string& run) {
    const RelativePath profileFolder = ArchiveLayout::profileFolder(profile.id);
    std::optional<RelativePath> path;
    if (run.find('/') == std::string::npos) {
        path = profileFolder.appending(run);
    } else if (auto given = RelativePath::fromString(run); given && given->parent() == profileFolder) {
        path = given;
    }
    if (!path) {
        throw UsageError(trFormat("“{}” is not an archive run of “{}”. “varnel-sync archive list {}” shows its runs.",
                                  run, profile.name, shellWord(profile.name)));
    }
    return *path;
}

nlohmann::ordered_json calloutJSON(const std::optional<ArchiveOverview::Callout>& callout) {
    if (!callout) return nullptr;
    return {{"title", callout->title}, {"message", callout->message}};
}

// --- list ----------------------------------------------------------------------------

ExitCode listCommand(Context& context, const std::string& nameOrID) {
    const SyncProfile profile = findProfile(context, nameOrID);
    const EndpointRoot root = openDestination(context, profile);
    ArchiveOverview overview =
        ArchiveManager(context.application().fileSystem()).overview(root, context.io().interruption->token());
    std::erase_if(overview.runs, [&](const ArchiveRun& run) { return run.profileID != profile.id; });
    const std::string folder = absolutePath(profile, ArchiveLayout::profileFolder(profile.id));

    if (context.json()) {
        nlohmann::ordered_json runs = nlohmann::ordered_json::array();
        for (const auto& run : overview.runs) {
            runs.push_back({{"name", runName(run)},
                            {"relativePath", run.relativePath.value()},
                            {"timestamp", run.timestamp ? nlohmann::ordered_json(formatISO8601(*run.timestamp)) : nullptr},
                            {"itemCount", run.itemCount},
                            {"totalBytes", run.totalBytes},
                            {"inaccessibleItemCount", run.inaccessibleItemCount}});
        }
        writeJSON(context.out(), {{"profileID", profile.id.string()},
                                  {"archiveFolder", folder},
                                  {"runs", runs},
                                  {"itemCount", overview.itemCount()},
                                  {"totalBytes", overview.totalBytes()},
                                  {"destinationFreeBytes", overview.destinationFreeBytes},
                                  {"destinationTotalBytes", overview.destinationTotalBytes},
                                  {"summary", overview.summarySentence()},
                                  {"spaceCallout", calloutJSON(overview.spaceCallout())},
                                  {"readErrorCallout", calloutJSON(overview.readErrorCallout())}});
        return ExitCode::ok;
    }

    std::ostream& out = context.out();
    if (!context.quiet()) out << trFormat("Archive of “{}” in {}", profile.name, folder) << '\n';
    if (overview.runs.empty()) {
        out << ArchiveOverview::emptyArchiveText() << '\n';
    } else {
        std::vector<std::array<std::string, 4>> rows;
        rows.push_back({tr("Run"), tr("Date"), tr("Items"), tr("Size")});
        for (const auto& run : overview.runs) {
            std::string items = std::to_string(run.itemCount);
            if (run.inaccessibleItemCount > 0) items += trFormat(" ({} unreadable)", run.inaccessibleItemCount);
            rows.push_back({runName(run), run.timestamp ? localDateTime(*run.timestamp) : "—", items,
                            formatByteCount(static_cast<std::int64_t>(run.totalBytes))});
        }
        std::array<std::size_t, 3> widths{};
        for (const auto& row : rows) {
            for (std::size_t i = 0; i < widths.size(); ++i) widths[i] = std::max(widths[i], displayWidth(row[i]));
        }
        for (const auto& row : rows) {
            out << "  ";
            for (std::size_t i = 0; i < widths.size(); ++i) out << padded(row[i], widths[i] + 2);
            out << row[3] << '\n';
        }
    }
    out << overview.summarySentence() << '\n';
    if (const auto oldest = overview.oldestRunDate(), newest = overview.newestRunDate(); oldest && newest) {
        out << trFormat("Oldest run {}, newest run {}.", localDateTime(*oldest), localDateTime(*newest)) << '\n';
    }
    for (const auto& callout : {overview.spaceCallout(), overview.readErrorCallout()}) {
        if (callout) out << callout->title << ": " << callout->message << '\n';
    }
    return ExitCode::ok;
}

// --- items ---------------------------------------------------------------------------

ExitCode itemsCommand(Context& context, const std::string& nameOrID, const std::string& run) {
    const SyncProfile profile = findProfile(context, nameOrID);
    const RelativePath folder = runFolderOf(profile, run);
    const EndpointRoot root = openDestination(context, profile);
    FileSystemProviding& fileSystem = context.application().fileSystem();
    bool isFolder = false;
    try {
        isFolder = fileSystem.entry(root, folder).isDirectory();
    } catch (const POSIXFileError&) {
    }
    if (!isFolder) {
        throw UsageError(trFormat("“{}” is not an archive run of “{}”. “varnel-sync archive list {}” shows its runs.",
                                  run, profile.name, shellWord(profile.name)));
    }
    ArchiveRun archiveRun;
    archiveRun.relativePath = folder;
    const auto items = ArchiveManager(fileSystem).items(root, archiveRun, context.io().interruption->token());

    if (context.json()) {
        nlohmann::ordered_json list = nlohmann::ordered_json::array();
        for (const auto& item : items) {
            list.push_back({{"path", item.relativePath.value()},
                            {"kind", toString(item.kind)},
                            {"sizeBytes", item.sizeBytes},
                            {"isAccessible", item.isAccessible}});
        }
        writeJSON(context.out(), {{"run", std::string(folder.lastComponent())},
                                  {"folder", absolutePath(profile, folder)},
                                  {"items", list}});
        return ExitCode::ok;
    }
    Pager pager(context);
    std::ostream& out = pager.stream();
    if (!context.quiet()) out << trFormat("Archive run {} of “{}”", absolutePath(profile, folder), profile.name) << '\n';
    if (items.empty()) {
        out << tr("The run folder is empty.") << '\n';
        return ExitCode::ok;
    }
    std::size_t kindWidth = 0;
    std::size_t sizeWidth = 0;
    for (const auto& item : items) {
        kindWidth = std::max(kindWidth, displayWidth(kindWord(item.kind)));
        sizeWidth = std::max(sizeWidth, displayWidth(formatByteCount(static_cast<std::int64_t>(item.sizeBytes))));
    }
    for (const auto& item : items) {
        const std::string size =
            item.kind == EntryKind::regularFile ? formatByteCount(static_cast<std::int64_t>(item.sizeBytes)) : "";
        out << "  " << padded(kindWord(item.kind), kindWidth + 2) << padded(size, sizeWidth + 2)
            << item.relativePath.value() << (item.isAccessible ? "" : tr(" (could not be read)")) << '\n';
    }
    if (!context.quiet()) {
        out << tr("To recover an item, move it back to the same path in the destination.") << '\n';
    }
    return ExitCode::ok;
}

// --- delete --------------------------------------------------------------------------

// Removes a folder and everything below it beneath the open root, never following a
// symbolic link. Goes on after a failure and reports every one.
struct Removal {
    std::int64_t removed = 0;
    std::vector<std::string> failures;
};

Removal removeTree(FileSystemProviding& fileSystem, const EndpointRoot& root, const RelativePath& top) {
    Removal removal;
    struct Step {
        RelativePath path;
        bool childrenQueued = false;
    };
    std::vector<Step> steps{{top, false}};
    while (!steps.empty()) {
        const Step step = steps.back();
        steps.pop_back();
        try {
            const FileSystemEntry entry = fileSystem.entry(root, step.path);
            if (!entry.isDirectory()) {
                fileSystem.removeFile(root, step.path);
                ++removal.removed;
            } else if (!step.childrenQueued) {
                const auto names = fileSystem.listDirectory(root, step.path);
                steps.push_back({step.path, true});
                for (const auto& name : names) {
                    if (auto child = step.path.appending(name)) steps.push_back({std::move(*child), false});
                }
            } else {
                fileSystem.removeDirectory(root, step.path);
                ++removal.removed;
            }
        } catch (const POSIXFileError& error) {
            // A folder left non-empty by an earlier failure needs no message of its own.
            if (error.errnoValue() != ENOTEMPTY || removal.failures.empty()) removal.failures.push_back(error.what());
        }
    }
    return removal;
}

struct DeleteArguments {
    std::string profile;
    std::string run;
    std::string confirm;
    CLI::Option* confirmOption = nullptr;
};

ExitCode deleteCommand(Context& context, const DeleteArguments& arguments) {
    const SyncProfile profile = findProfile(context, arguments.profile);
    const RelativePath folder = runFolderOf(profile, arguments.run);
    const std::string name(folder.lastComponent());
    const std::string refusal =
        trFormat("“{}” is not an archive run of “{}”. Only one run folder, {}/<profile>/<yyyy-MM-dd-HHmmss>, can be "
                 "deleted at a time.",
                 arguments.run, profile.name, ArchiveLayout::kArchiveFolderName);
    if (!ArchiveLayout::parseRunFolderName(name)) throw UsageError(refusal);

    SyncApplication& application = context.application();
    FileSystemProviding& fileSystem = application.fileSystem();
    const EndpointRoot root = openDestination(context, profile);
    bool isFolder = false;
    try {
        isFolder = fileSystem.entry(root, folder).isDirectory();  // a link anywhere on the way fails here
    } catch (const POSIXFileError&) {
    }
    if (!isFolder) throw UsageError(refusal);

    // The drive must still be the one the profile recorded.
    if (profile.destinationVolume) {
        SyncProfile found = profile;
        application.chooseFolder(found, EndpointRole::destination, profile.destinationDisplayPath);
        const MatchResult match = VolumeIdentity::match(*profile.destinationVolume, *found.destinationVolume);
        if (match.isMismatch()) {
            const SyncError error(SyncError::VolumeIdentityMismatch{EndpointRole::destination, *match.reason()});
            throw CommandFailure(ExitCode::analysisFailed, error.message(), error.code());
        }
    }

    std::optional<std::string> typed;
    if (arguments.confirmOption->count() > 0) {
        typed = arguments.confirm;
    } else if (context.canPrompt()) {
        context.io().interruption->setExitsAtOnce(true);
        context.err() << trFormat("Deleting {} cannot be undone. Type the run's name ({}) to delete it: ",
                                  absolutePath(profile, folder), name)
                      << std::flush;
        std::string line;
        if (std::getline(context.io().in, line)) typed = line;
        context.io().interruption->setExitsAtOnce(false);
    }
    if (!typed) {
        throw CommandFailure(ExitCode::confirmationRequired,
                             trFormat("Deleting an archive run needs its name typed back: --confirm {}. Nothing was "
                                      "deleted.",
                                      name),
                             "confirmation_required");
    }
    if (*typed != name) {
        throw CommandFailure(ExitCode::confirmationRequired,
                             trFormat("“{}” is not the run's name “{}”. Nothing was deleted.", *typed, name),
                             "confirmation_required");
    }

    const DestinationLock lock(profile.destinationDisplayPath);
    if (lock.state() == DestinationLock::State::busy) {
        throw CommandFailure(ExitCode::analysisFailed,
                             trFormat("A Varnel Sync run is writing to “{}”. Delete the archive run when it has finished.",
                                      profile.destinationDisplayPath),
                             "destination_busy");
    }
    ArchiveRun run;
    run.relativePath = folder;
    std::uint64_t bytes = 0;
    for (const auto& item : ArchiveManager(fileSystem).items(root, run)) bytes += item.sizeBytes;
    context.failureExitCode = ExitCode::runFailed;
    const Removal removal = removeTree(fileSystem, root, folder);

    if (context.json()) {
        writeJSON(context.out(), {{"deleted", folder.value()},
                                  {"removedItems", removal.removed},
                                  {"bytes", bytes},
                                  {"failures", removal.failures}});
    } else {
        for (const auto& failure : removal.failures) context.err() << "varnel-sync: " << failure << '\n';
        if (removal.failures.empty()) {
            context.out() << trFormat("Deleted archive run {} ({} items, {}).", name, removal.removed - 1,
                                      formatByteCount(static_cast<std::int64_t>(bytes)))
                          << '\n';
        } else {
            context.out() << trFormat("Deleted {} items of archive run {}; {} could not be removed.", removal.removed,
                                      name, removal.failures.size())
                          << '\n';
        }
    }
    return removal.failures.empty() ? ExitCode::ok : ExitCode::itemsFailed;
}

}  // namespace

void addArchiveCommands(CLI::App& app, Dispatch& dispatch) {
    CLI::App* archive = app.add_subcommand("archive", tr("List, inspect and delete the runs of a Mirror archive."));
    archive->require_subcommand(1);

    auto listed = std::make_shared<std::string>();
    CLI::App* list = archive->add_subcommand(
        "list", tr("The profile's archive runs with their counts, sizes and dates, and the space they use."));
    list->add_option("PROFILE", *listed, tr("the profile's name or id"))->required();
    list->callback([&dispatch, listed] {
        dispatch.action = [listed](Context& context) { return listCommand(context, *listed); };
    });

    auto itemArguments = std::make_shared<std::pair<std::string, std::string>>();
    CLI::App* items = archive->add_subcommand("items", tr("Everything one archive run holds."));
    items->add_option("PROFILE", itemArguments->first, tr("the profile's name or id"))->required();
    items->add_option("RUN", itemArguments->second, tr("the run's name, as archive list shows it"))->required();
    items->callback([&dispatch, itemArguments] {
        dispatch.action = [itemArguments](Context& context) {
            return itemsCommand(context, itemArguments->first, itemArguments->second);
        };
    });

    auto deleted = std::make_shared<DeleteArguments>();
    CLI::App* remove = archive->add_subcommand(
        "delete", tr("Delete one archive run for good. Its name must be typed back with --confirm."));
    remove->add_option("PROFILE", deleted->profile, tr("the profile's name or id"))->required();
    remove->add_option("RUN", deleted->run, tr("the run's name, as archive list shows it"))->required();
    deleted->confirmOption =
        remove->add_option("--confirm", deleted->confirm, tr("the run's name, typed back"))->type_name("WORD");
    remove->callback([&dispatch, deleted] {
        dispatch.action = [deleted](Context& context) { return deleteCommand(context, *deleted); };
    });
}

}  // namespace varnel::cli
