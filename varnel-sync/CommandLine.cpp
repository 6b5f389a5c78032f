#include "varnel-sync/CommandLine.hpp"

#include "common/DecodingError.hpp"
#include "common/Localization.hpp"
#include "logs/BuildInfo.hpp"
#include "scan/POSIXFileError.hpp"
#include "transfer/SyncError.hpp"
#include "varnel-sync/Commands.hpp"
#include "varnel-sync/Output.hpp"

#include <CLI/CLI.hpp>

#include <filesystem>

namespace varnel::cli {

namespace {

std::string exitStatusHelp() {
    return tr("Exit status:\n"
              "  0    done (success, or completed with warnings)\n"
              "  1    done, but some items failed\n"
              "  2    usage error or bad input\n"
              "  3    analysis failed, or a blocker refused the run\n"
              "  4    confirmation required and not given; nothing was written\n"
              "  5    the run (or the requested operation) failed\n"
              "  130  cancelled with Ctrl-C\n"
              "\n"
              "Analysis writes nothing. A run writes every file to a staging file first and renames it into\n"
              "place, so the destination always holds the complete old file or the complete new one.\n"
              "Mirror mode never deletes: destination-only items move into .VarnelSync-Archive.");
}

void addGlobalOptions(CLI::App& app, GlobalOptions& options, std::string& profilesFile, std::string& logsFolder,
                      CLI::Option*& profilesOption, CLI::Option*& logsOption) {
    const char* group = "Global options (before or after the command)";
    profilesOption = app.add_option("--profiles", profilesFile, tr("the profiles file to use"))
                         ->type_name("FILE")
                         ->group(group);
    logsOption = app.add_option("--logs", logsFolder, tr("the folder of run logs to use"))->type_name("DIR")->group(group);
    app.add_flag("--isolated", options.isolated,
                 tr("keep profiles and logs in the temporary folder (varnelsync-profiles.json, VarnelSyncLogs), "
                    "never touching your own"))
        ->group(group);
    app.add_flag("--json", options.json, tr("print one JSON document on stdout instead of text"))->group(group);
    app.add_flag("-q,--quiet", options.quiet, tr("print only results and errors"))->group(group);
    app.add_flag("--no-progress", options.noProgress, tr("draw no progress line on stderr"))->group(group);
    app.add_flag("--no-pager", options.noPager, tr("never page long output through less"))->group(group);
}

// The --json error document: {"error": {"code", "message"}, …details}.
void writeErrorJSON(std::ostream& out, const std::string& code, const std::string& message,
                    const nlohmann::ordered_json& details = nlohmann::ordered_json::object()) {
    nlohmann::ordered_json document{{"error", {{"code", code}, {"message", message}}}};
    for (auto it = details.begin(); it != details.end(); ++it) document[it.key()] = it.value();
    writeJSON(out, document);
}

int fail(Context& context, ExitCode code, const std::string& errorCode, const std::string& message,
         const nlohmann::ordered_json& details = nlohmann::ordered_json::object()) {
    context.out().flush();
    context.err() << "varnel-sync: " << message << '\n';
    if (context.json()) writeErrorJSON(context.out(), errorCode, message, details);
    return toInt(code);
}

int runCommand(Context& context, Dispatch& dispatch) {
    try {
        return toInt(dispatch.action(context));
    } catch (const UsageError& error) {
        return fail(context, ExitCode::usage, "invalid_argument", error.what());
    } catch (const CommandFailure& failure) {
        return fail(context, failure.exitCode(), failure.code(), failure.what(), failure.details());
    } catch (const SyncError& error) {
        const ExitCode code = error.is<SyncError::Cancelled>() ? ExitCode::cancelled : context.failureExitCode;
        return fail(context, code, error.code(), error.message());
    } catch (const POSIXFileError& error) {
        return fail(context, context.failureExitCode, "file_error", error.what());
    } catch (const DecodingError& error) {
        return fail(context, context.failureExitCode, "decoding_error", error.what());
    } catch (const CLI::Error& error) {
        return fail(context, ExitCode::usage, "invalid_argument", error.what());
    } catch (const std::exception& error) {
        return fail(context, context.failureExitCode, "failed", error.what());
    }
}

}  // namespace

std::string versionText() {
    return fmt::format("varnel-sync {} (build {}, revision {})", build_info::kVersion, build_info::kBuild,
                       build_info::kSourceRevision);
}

int run(const std::vector<std::string>& arguments, Io& io) {
    CLI::App app(tr("Varnel Sync copies one folder or drive to another, in one direction, and shows every change "
                    "before anything is written."),
                 "varnel-sync");
    app.set_version_flag("--version", versionText(), tr("print the version and exit"));
    app.require_subcommand(1);
    app.fallthrough();  // global options are accepted after the command too

    GlobalOptions options;
    std::string profilesFile;
    std::string logsFolder;
    CLI::Option* profilesOption = nullptr;
    CLI::Option* logsOption = nullptr;
    addGlobalOptions(app, options, profilesFile, logsFolder, profilesOption, logsOption);

    // Every command inherits this footer when it is created; the main help's follows below.
    app.footer(tr("Global options (--json, --quiet, --isolated, --profiles FILE, --logs DIR, --no-progress, "
                  "--no-pager) are accepted after the command too.\n\n") +
               exitStatusHelp());
    Dispatch dispatch;
    addProfileCommands(app, dispatch);
    addSyncCommands(app, dispatch);
    addArchiveCommands(app, dispatch);
    addLeftoverCommands(app, dispatch);
    addLogCommands(app, dispatch);
    app.footer(exitStatusHelp());

    std::vector<const char*> argv{"varnel-sync"};
    for (const auto& argument : arguments) argv.push_back(argument.c_str());
    try {
        app.parse(static_cast<int>(argv.size()), argv.data());
    } catch (const CLI::CallForHelp& help) {
        return app.exit(help, io.out, io.err);
    } catch (const CLI::CallForAllHelp& help) {
        return app.exit(help, io.out, io.err);
    } catch (const CLI::CallForVersion& version) {
        return app.exit(version, io.out, io.err);
    } catch (const CLI::ParseError& error) {
        io.err << "varnel-sync: " << error.what() << '\n'
               << tr("Run “varnel-sync --help” (or COMMAND --help) for the usage.") << '\n';
        return toInt(ExitCode::usage);
    }

    std::error_code ignored;
    if (profilesOption->count() > 0) options.profilesFile = std::filesystem::absolute(profilesFile, ignored).string();
    if (logsOption->count() > 0) options.logsFolder = std::filesystem::absolute(logsFolder, ignored).string();
    Context context(io, options);
    if (!dispatch.action) {
        return fail(context, ExitCode::usage, "invalid_argument", tr("Choose a command; see “varnel-sync --help”."));
    }
    return runCommand(context, dispatch);
}

}  // namespace varnel::cli
