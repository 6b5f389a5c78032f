#include "support/CommandLineRunner.hpp"

#include <unistd.h>

#include <cstdlib>
#include <stdexcept>
#include <system_error>

namespace varnel::testing {

namespace fs = std::filesystem;

std::string CommandLineRunner::binary() {
    if (const char* set = std::getenv("VARNEL_SYNC_BINARY"); set != nullptr && *set != '\0') {
        return ::access(set, X_OK) == 0 ? std::string(set) : std::string();
    }
    std::error_code error;
    const fs::path self = fs::read_symlink("/proc/self/exe", error);
    if (error) return "";
    // <build>/tests/<folder>_tests -> <build>/varnel-sync/varnel-sync
    const fs::path program = self.parent_path().parent_path() / "varnel-sync" / "varnel-sync";
    return ::access(program.c_str(), X_OK) == 0 ? program.string() : std::string();
}

std::string CommandLineRunner::missingReason() {
    return "the varnel-sync program is not built (build the varnel-sync target, or set VARNEL_SYNC_BINARY)";
}

CommandLineRunner::CommandLineRunner(fs::path temporaryFolder) : tmp_(std::move(temporaryFolder)) {
    fs::create_directories(tmp_);
}

std::vector<std::string> CommandLineRunner::command(const std::vector<std::string>& arguments) const {
    std::vector<std::string> full{binary(), "--isolated", "--no-progress"};
    full.insert(full.end(), arguments.begin(), arguments.end());
    return full;
}

std::map<std::string, std::string> CommandLineRunner::environmentWith(
    const std::map<std::string, std::string>& extra) const {
    std::map<std::string, std::string> environment{{"TMPDIR", tmp_.string()}, {"LANG", "C.UTF-8"},
                                                   {"LC_ALL", "C.UTF-8"}};
    for (const auto& [name, value] : extra) environment[name] = value;
    return environment;
}

CommandLineRunner::Finished CommandLineRunner::run(const std::vector<std::string>& arguments,
                                                   const std::map<std::string, std::string>& environment) const {
    const fs::path output = tmp_ / "run-output";
    ChildProcess child = ChildProcess::exec(command(arguments), environmentWith(environment), output);
    Finished finished;
    finished.ended = child.wait();
    finished.out = readTextFile(output);
    finished.err = readTextFile(output.string() + ".err");
    return finished;
}

ChildProcess CommandLineRunner::start(const std::vector<std::string>& arguments,
                                      const std::map<std::string, std::string>& environment) const {
    return ChildProcess::exec(command(arguments), environmentWith(environment), tmp_ / "last-output");
}

std::string CommandLineRunner::addProfile(const std::string& name, const fs::path& source,
                                          const fs::path& destination,
                                          const std::vector<std::string>& options) const {
    std::vector<std::string> arguments{"profile", "add", name, "--source", source.string(), "--destination",
                                       destination.string()};
    arguments.insert(arguments.end(), options.begin(), options.end());
    const Finished added = run(arguments);
    if (added.ended.exitCode != 0) {
        throw std::runtime_error("profile add failed (" + std::to_string(added.ended.exitCode) + "): " + added.err);
    }
    std::string id = added.out;
    while (!id.empty() && (id.back() == '\n' || id.back() == ' ')) id.pop_back();
    return id.substr(id.find_last_of('\n') == std::string::npos ? 0 : id.find_last_of('\n') + 1);
}

}  // namespace varnel::testing
