#include "support/ChildProcess.hpp"

#include <fcntl.h>
#include <grp.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <utility>

extern char** environ;

namespace varnel::testing {

ChildProcess ChildProcess::exec(const std::vector<std::string>& arguments,
                                const std::map<std::string, std::string>& environment,
                                const std::filesystem::path& output) {
    // Everything the child needs is built before fork: only async-signal-safe calls after.
    std::vector<std::string> variables;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const std::string text(*entry);
        const auto name = text.substr(0, text.find('='));
        if (!environment.count(name)) variables.push_back(text);
    }
    for (const auto& [name, value] : environment) variables.push_back(name + "=" + value);
    std::vector<char*> argv;
    for (const auto& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    std::vector<char*> envp;
    for (auto& variable : variables) envp.push_back(variable.data());
    envp.push_back(nullptr);
    const std::string out = output.empty() ? std::string("/dev/null") : output.string();
    const std::string err = output.empty() ? std::string("/dev/null") : output.string() + ".err";

    const pid_t child = ::fork();
    if (child < 0) throw std::runtime_error(std::string("fork failed: ") + std::strerror(errno));
    if (child == 0) {
        const int outFd = ::open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        const int errFd = ::open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        const int inFd = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
        if (outFd < 0 || errFd < 0 || inFd < 0) ::_exit(126);
        ::dup2(inFd, STDIN_FILENO);
        ::dup2(outFd, STDOUT_FILENO);
        ::dup2(errFd, STDERR_FILENO);
        ::execve(argv[0], argv.data(), envp.data());
        ::_exit(127);
    }
    return ChildProcess(child);
}

ChildProcess ChildProcess::fork(const std::function<int()>& body) {
    const pid_t child = ::fork();
    if (child < 0) throw std::runtime_error(std::string("fork failed: ") + std::strerror(errno));
    if (child == 0) {
        int code = 125;
        try {
            code = body();
        } catch (...) {  // NOLINT(bugprone-empty-catch): an escaping exception is exit code 125
        }
        ::_exit(code);
    }
    return ChildProcess(child);
}

ChildProcess::ChildProcess(ChildProcess&& other) noexcept
    : pid_(std::exchange(other.pid_, -1)), ended_(std::move(other.ended_)) {}

ChildProcess::~ChildProcess() {
    if (pid_ <= 0 || ended_) return;
    ::kill(pid_, SIGKILL);
    int status = 0;
    while (::waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
    }
}

void ChildProcess::kill(int signal) {
    if (pid_ > 0 && !ended_) ::kill(pid_, signal);
}

ChildProcess::Ended ChildProcess::decode(int status) {
    Ended ended;
    if (WIFSIGNALED(status)) {
        ended.killed = true;
        ended.signal = WTERMSIG(status);
    } else if (WIFEXITED(status)) {
        ended.exitCode = WEXITSTATUS(status);
    }
    return ended;
}

ChildProcess::Ended ChildProcess::wait() {
    if (ended_) return *ended_;
    int status = 0;
    while (::waitpid(pid_, &status, 0) < 0) {
        if (errno != EINTR) throw std::runtime_error(std::string("waitpid failed: ") + std::strerror(errno));
    }
    ended_ = decode(status);
    return *ended_;
}

std::optional<ChildProcess::Ended> ChildProcess::poll() {
    if (ended_) return ended_;
    int status = 0;
    const pid_t done = ::waitpid(pid_, &status, WNOHANG);
    if (done == pid_) ended_ = decode(status);
    return ended_;
}

std::string inUnprivilegedChild(const std::function<std::string()>& body) {
    int pipeFds[2];
    if (::pipe(pipeFds) != 0) return "pipe failed";
    const pid_t child = ::fork();
    if (child < 0) return "fork failed";
    if (child == 0) {
        ::close(pipeFds[0]);
        std::string result;
        if (::geteuid() == 0 && (::setgroups(0, nullptr) != 0 || ::setresgid(65534, 65534, 65534) != 0 ||
                                 ::setresuid(65534, 65534, 65534) != 0)) {
            result = "could not drop privileges";
        } else {
            try {
                result = body();
            } catch (const std::exception& error) {
                result = std::string("exception: ") + error.what();
            }
        }
        [[maybe_unused]] const auto written = ::write(pipeFds[1], result.data(), result.size());
        ::_exit(0);
    }
    ::close(pipeFds[1]);
    std::string output;
    char buffer[512];
    for (ssize_t count; (count = ::read(pipeFds[0], buffer, sizeof buffer)) > 0;) {
        output.append(buffer, static_cast<std::size_t>(count));
    }
    ::close(pipeFds[0]);
    ::waitpid(child, nullptr, 0);
    return output;
}

std::string readTextFile(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

void writeTextFile(const std::filesystem::path& path, const std::string& contents) {
    std::filesystem::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary | std::ios::trunc) << contents;
}

}  // namespace varnel::testing
