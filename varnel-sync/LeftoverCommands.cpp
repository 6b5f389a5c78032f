// leftovers: staging files that interrupted runs left in a destination tree, listed by
// what their names say about themselves and, with --clean, removed.

#include "archive/ArchiveLayout.hpp"
#include "common/ByteCount.hpp"
#include "common/Localization.hpp"
#include "scan/POSIXFileError.hpp"
#include "transfer/PartialFileNaming.hpp"
#include "varnel-sync/Commands.hpp"
#include "varnel-sync/DestinationLock.hpp"
#include "varnel-sync/Output.hpp"

namespace varnel::cli {

namespace {

struct Leftover {
    FileSystemEntry entry;
    PartialFileNaming::ParsedName name;
};

struct Search {
    std::vector<Leftover> leftovers;
    std::vector<std::string> unreadable;  // folders that could not be listed
};

// Every item below the root whose name parses as a staging name and that is a file or a
// link, breadth first, never following a link and never entering the archive.
Search findLeftovers(FileSystemProviding& fileSystem, const EndpointRoot& root, const std::stop_token& stop) {
    Search search;
    std::vector<RelativePath> folders{RelativePath()};
    while (!folders.empty()) {
        if (stop.stop_requested()) throw SyncError(SyncError::Cancelled{});
        const RelativePath folder = std::move(folders.back());
        folders.pop_back();
        std::vector<std::string> names;
        try {
            names = fileSystem.listDirectory(root, folder);
        } catch (const POSIXFileError& error) {
            search.unreadable.push_back(error.what());
            continue;
        }
        std::sort(names.begin(), names.end());
        for (const auto& name : names) {
            const auto path = folder.appending(name);
            if (!path || ArchiveLayout::isInsideArchive(*path)) continue;
            FileSystemEntry entry;
            try {
                entry = fileSystem.entry(root, *path);
            } catch (const POSIXFileError& error) {
                search.unreadable.push_back(error.what());
                continue;
            }
            if (entry.isDirectory()) {
                folders.push_back(*path);
                continue;
            }
            if (!entry.isRegularFile() && !entry.isSymbolicLink()) continue;
            if (auto parsed = PartialFileNaming::parse(name)) {
                search.leftovers.push_back({std::move(entry), std::move(*parsed)});
            }
        }
    }
    std::sort(search.leftovers.begin(), search.leftovers.end(),
              [](const Leftover& a, const Leftover& b) { return a.entry.relativePath < b.entry.relativePath; });
    return search;
}

struct LeftoverArguments {
    std::string profile;
    bool clean = false;
};

ExitCode leftoversCommand(Context& context, const LeftoverArguments& arguments) {
    const SyncProfile profile = findProfile(context, arguments.profile);
    if (profile.destinationDisplayPath.empty()) throw UsageError(tr("Choose a destination folder."));
    FileSystemProviding& fileSystem = context.application().fileSystem();
    EndpointRoot root;
    try {
        root = fileSystem.openRoot(profile.destinationDisplayPath);
    } catch (const POSIXFileError&) {
        throw SyncError(SyncError::EndpointNotFound{EndpointRole::destination, profile.destinationDisplayPath});
    }

    // A running run's staging files are in use: while one holds the destination, nothing is removed.
    std::optional<DestinationLock> lock;
    if (arguments.clean) {
        lock.emplace(profile.destinationDisplayPath);
        if (lock->state() == DestinationLock::State::busy) {
            throw CommandFailure(ExitCode::analysisFailed,
                                 trFormat("A Varnel Sync run is writing to “{}”, and some staging files may be its own. "
                                          "Clean up when it has finished.",
                                          profile.destinationDisplayPath),
                                 "destination_busy");
        }
    }
    const Search search = findLeftovers(fileSystem, root, context.io().interruption->token());
    const auto nowSeconds =
        std::chrono::duration_cast<std::chrono::seconds>(context.now().time_since_epoch()).count();
    std::int64_t totalBytes = 0;
    for (const auto& leftover : search.leftovers) totalBytes += leftover.entry.size;

    std::int64_t removed = 0;
    std::vector<std::string> failures = search.unreadable;
    std::vector<bool> wasRemoved(search.leftovers.size(), false);
    if (arguments.clean) {
        context.failureExitCode = ExitCode::runFailed;
        for (std::size_t i = 0; i < search.leftovers.size(); ++i) {
            try {
                fileSystem.removeFile(root, search.leftovers[i].entry.relativePath);
                wasRemoved[i] = true;
                ++removed;
            } catch (const POSIXFileError& error) {
                failures.push_back(error.what());
            }
        }
    }

    if (context.json()) {
        nlohmann::ordered_json list = nlohmann::ordered_json::array();
        for (std::size_t i = 0; i < search.leftovers.size(); ++i) {
            const Leftover& leftover = search.leftovers[i];
            nlohmann::ordered_json item{
                {"path", leftover.entry.relativePath.value()},
                {"intendedName", leftover.name.intendedName},
                {"runTag", leftover.name.runTag ? nlohmann::ordered_json(*leftover.name.runTag) : nullptr},
                {"sizeBytes", leftover.entry.size},
                {"ageSeconds", nowSeconds - leftover.entry.modificationTime.seconds()}};
            if (arguments.clean) item["removed"] = static_cast<bool>(wasRemoved[i]);
            list.push_back(std::move(item));
        }
        writeJSON(context.out(), {{"destination", profile.destinationDisplayPath},
                                  {"leftovers", list},
                                  {"totalBytes", totalBytes},
                                  {"removed", removed},
                                  {"failures", failures}});
    } else {
        std::ostream& out = context.out();
        for (const auto& failure : failures) context.err() << "varnel-sync: " << failure << '\n';
        if (search.leftovers.empty()) {
            out << trFormat("No leftover staging files in {}.", profile.destinationDisplayPath) << '\n';
        } else {
            std::vector<std::array<std::string, 4>> rows;
            rows.push_back({tr("Run"), tr("Age"), tr("Size"), tr("Staging file → intended name")});
            for (const auto& leftover : search.leftovers) {
                const RelativePath& path = leftover.entry.relativePath;
                const std::string folder = path.parent().isRoot() ? "" : std::string(path.parent().value()) + "/";
                rows.push_back({leftover.name.runTag.value_or("—"),
                                ageText(nowSeconds - leftover.entry.modificationTime.seconds()),
                                formatByteCount(leftover.entry.size),
                                std::string(path.value()) + " → " + folder + leftover.name.intendedName});
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
            if (arguments.clean) {
                out << trFormat("Removed {} of {} leftover staging files.", removed, search.leftovers.size()) << '\n';
            } else {
                out << trFormat("{} leftover staging files ({}). Remove them with “varnel-sync leftovers {} --clean”.",
                                search.leftovers.size(), formatByteCount(totalBytes), shellWord(profile.name))
                    << '\n';
            }
        }
    }
    if (arguments.clean && removed < static_cast<std::int64_t>(search.leftovers.size())) return ExitCode::itemsFailed;
    return ExitCode::ok;
}

}  // namespace

void addLeftoverCommands(CLI::App& app, Dispatch& dispatch) {
    auto arguments = std::make_shared<LeftoverArguments>();
    CLI::App* leftovers = app.add_subcommand(
        "leftovers", tr("List the staging files interrupted runs left in the destination; remove them with --clean."));
    leftovers->add_option("PROFILE", arguments->profile, tr("the profile's name or id"))->required();
    leftovers->add_flag("--clean", arguments->clean,
                        tr("remove them (never while a run is writing to the destination, never a file whose name "
                           "is not a staging name)"));
    leftovers->callback([&dispatch, arguments] {
        dispatch.action = [arguments](Context& context) { return leftoversCommand(context, *arguments); };
    });
}

}  // namespace varnel::cli
