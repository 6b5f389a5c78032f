#pragma once
// The command groups of the tool. Each group registers its subcommands on the CLI11
// application; the subcommand that was parsed leaves its action in the Dispatch, which
// runs after parsing with the Context of the invocation.

#include "model/SyncProfile.hpp"
#include "varnel-sync/Context.hpp"

#include <CLI/CLI.hpp>

#include <functional>
#include <string>

namespace varnel::cli {

struct Dispatch {
    std::function<ExitCode(Context&)> action;
};

void addProfileCommands(CLI::App& app, Dispatch& dispatch);
void addSyncCommands(CLI::App& app, Dispatch& dispatch);  // analyze, sync, run-due
void addArchiveCommands(CLI::App& app, Dispatch& dispatch);
void addLeftoverCommands(CLI::App& app, Dispatch& dispatch);
void addLogCommands(CLI::App& app, Dispatch& dispatch);

// The saved profile with this id or name (a unique name in any case will do). Throws
// UsageError when none or several match.
SyncProfile findProfile(Context& context, const std::string& nameOrID);

}  // namespace varnel::cli
