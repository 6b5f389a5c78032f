#pragma once

#include <sys/types.h>

#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace varnel::testing {

// A program (or a function) run in a child process that a test can kill at any moment,
// for the crash tests:
//
//     ChildProcess run = ChildProcess::exec({"/path/varnel-sync", "--isolated", "sync", "P"},
//                                           {{"TMPDIR", tmp}, {"VARNEL_TEST_KILL_AT", "rename:2"}},
//                                           tmp + "/out.txt");
//     run.kill();                       // SIGKILL now (harmless if it already ended)
//     const auto ended = run.wait();    // ended.killed, ended.exitCode
//
// The child's standard output goes to `output` (when given, else /dev/null), its
// standard error to `output` + ".err". The destructor kills and reaps a child still
// running, so a failed assertion never leaves one behind.
class ChildProcess {
public:
    struct Ended {
        bool killed = false;  // ended by a signal (the one in `signal`)
        int signal = 0;
        int exitCode = -1;    // when it exited on its own
    };

    // Runs `arguments` (no shell; the first is the program), with `environment` added to
    // (or replacing entries of) this process's environment.
    static ChildProcess exec(const std::vector<std::string>& arguments,
                             const std::map<std::string, std::string>& environment = {},
                             const std::filesystem::path& output = {});
    // Runs `body` in a forked copy of this process; its return value is the exit code.
    static ChildProcess fork(const std::function<int()>& body);

    ChildProcess(ChildProcess&& other) noexcept;
    ChildProcess& operator=(ChildProcess&&) = delete;
    ChildProcess(const ChildProcess&) = delete;
    ~ChildProcess();

    void kill(int signal = 9);
    // Waits for the end.
    Ended wait();
    // The end if it came already, without waiting.
    std::optional<Ended> poll();

private:
    explicit ChildProcess(pid_t pid) : pid_(pid) {}
    static Ended decode(int status);

    pid_t pid_ = -1;
    std::optional<Ended> ended_;
};

// Runs `body` in a forked child as the user nobody (65534) when this process is root,
// since root passes permission bits; as the current user otherwise. What `body`
// returned, or why the child could not run it.
std::string inUnprivilegedChild(const std::function<std::string()>& body);

// The text of a file, or "" when it cannot be read.
std::string readTextFile(const std::filesystem::path& path);
// Writes a file, creating the folders on the way.
void writeTextFile(const std::filesystem::path& path, const std::string& contents);

}  // namespace varnel::testing
