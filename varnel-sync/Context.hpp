#pragma once
// What every command of the command-line tool works with: the streams it prints to,
// the facts about the terminal, the global options, the application layer and the
// process's interruption (Ctrl-C). Nothing here touches the global std::cout, so the
// commands can be run in-process by tests that compare what they print.

#include "app/SyncApplication.hpp"
#include "common/Date.hpp"
#include "model/ApplicationFolders.hpp"
#include "transfer/CancellationFlag.hpp"

#include <nlohmann/json.hpp>

#include <atomic>
#include <iosfwd>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <stop_token>
#include <string>

namespace varnel::cli {

// The tool's exit statuses; scripts depend on them.
enum class ExitCode : int {
    ok = 0,                    // done: success or completed with warnings, no failed item
    itemsFailed = 1,           // done, but some items failed
    usage = 2,                 // usage or bad input
    analysisFailed = 3,        // analysis failed, or a blocker refused the run
    confirmationRequired = 4,  // confirmation required and not given; nothing was written
    runFailed = 5,             // the run (or the requested operation) failed
    cancelled = 130,           // stopped by Ctrl-C
};

inline int toInt(ExitCode code) {
    return static_cast<int>(code);
}

// Bad input from the user: a wrong flag value, an unknown profile, a missing folder.
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// A failure with a chosen exit status and an optional stable code for --json output.
class CommandFailure : public std::runtime_error {
public:
    CommandFailure(ExitCode exitCode, const std::string& message, std::string code = "failed",
                   nlohmann::ordered_json details = nlohmann::ordered_json::object())
        : std::runtime_error(message), exitCode_(exitCode), code_(std::move(code)), details_(std::move(details)) {}
    ExitCode exitCode() const { return exitCode_; }
    const std::string& code() const { return code_; }
    // Extra members of the --json error document (the decision a confirmation lacked).
    const nlohmann::ordered_json& details() const { return details_; }

private:
    ExitCode exitCode_;
    std::string code_;
    nlohmann::ordered_json details_;
};

// Ctrl-C (or SIGTERM), shared between the signal watcher of `main` and the running
// operation: analysis observes the stop token, a run the cancellation flag.
class Interruption {
public:
    void interrupt() {
        flag_.cancel();
        stop_.request_stop();
    }
    bool isInterrupted() const { return flag_.isCancelled(); }
    CancellationFlag& flag() { return flag_; }
    std::stop_token token() const { return stop_.get_token(); }

    // While a question waits for an answer nothing is being written, so Ctrl-C may end
    // the process at once instead of asking the work to stop.
    void setExitsAtOnce(bool value) { exitsAtOnce_.store(value); }
    bool exitsAtOnce() const { return exitsAtOnce_.load(); }

private:
    CancellationFlag flag_;
    std::stop_source stop_;
    std::atomic<bool> exitsAtOnce_{false};
};

struct Terminal {
    bool stdinIsTerminal = false;
    bool stdoutIsTerminal = false;
    bool stderrIsTerminal = false;
    int columns = 80;
};

// The outside world of one invocation.
struct Io {
    std::istream& in;
    std::ostream& out;
    std::ostream& err;
    Terminal terminal{};
    EnvironmentLookup environment = processEnvironment();
    std::shared_ptr<Interruption> interruption = std::make_shared<Interruption>();
    const Clock* clock = &SystemClock::shared();
    // Set by a process that ends when the command does (see Context::keepUntilExit).
    bool processEndsWithCommand = false;
};

// The options accepted before or after any command.
struct GlobalOptions {
    std::optional<std::string> profilesFile;
    std::optional<std::string> logsFolder;
    bool isolated = false;
    bool json = false;
    bool quiet = false;
    bool noProgress = false;
    bool noPager = false;
};

class Context {
public:
    Context(Io& io, GlobalOptions options) : io_(io), options_(std::move(options)) {}

    Io& io() { return io_; }
    const GlobalOptions& options() const { return options_; }
    bool json() const { return options_.json; }
    bool quiet() const { return options_.quiet; }
    Date now() const { return io_.clock->now(); }

    std::ostream& out() { return io_.out; }
    std::ostream& err() { return io_.err; }
    // Where the text meant for people goes: stdout, or stderr when stdout carries JSON.
    std::ostream& human() { return options_.json ? io_.err : io_.out; }

    // A progress line is drawn on stderr only when it is a terminal and not turned off.
    bool showsProgress() const {
        return io_.terminal.stderrIsTerminal && !options_.noProgress && !options_.quiet;
    }
    // Long text goes through `less -FRX` only when stdout is a terminal.
    bool pagesOutput() const { return io_.terminal.stdoutIsTerminal && !options_.noPager && !options_.json; }
    bool canPrompt() const { return io_.terminal.stdinIsTerminal; }

    // The application folders these options choose.
    ApplicationFolders folders() const;
    // The application layer, created and loaded on first use.
    SyncApplication& application(bool watchVolumes = false);

    // Where the process ends with the command, `value` is kept to the end and its memory
    // goes back to the system at exit all at once: freeing a plan of a million items
    // piece by piece takes a tenth of a second. Otherwise it goes with this call.
    void keepUntilExit(std::shared_ptr<void> value);

    // The exit status a SyncError or system error reaching the top level stands for
    // (the run failed unless a command says otherwise, as analysis does).
    ExitCode failureExitCode = ExitCode::runFailed;

private:
    Io& io_;
    GlobalOptions options_;
    std::unique_ptr<SyncApplication> application_;
};

}  // namespace varnel::cli
