#pragma once

#include "support/ChildProcess.hpp"

#include <filesystem>
#include <map>
#include <string>
#include <vector>

namespace varnel::testing {

// Runs the real varnel-sync program in its isolated mode with a TMPDIR of the test's
// own, so its profiles, logs and staging folder live there and nowhere else:
//
//     if (CommandLineRunner::binary().empty()) GTEST_SKIP() << CommandLineRunner::missingReason();
//     CommandLineRunner cli(temporary / "tmp");
//     const std::string id = cli.addProfile("P", source, destination, {"--mode", "mirror"});
//     const auto run = cli.run({"--json", "sync", id, "--acknowledge-all", "--confirm", "ARCHIVE"});
//     run.ended.exitCode; run.out; run.err;
//     ChildProcess child = cli.start({"sync", id, ...}, {{"VARNEL_TEST_KILL_AT", "rename"}});
class CommandLineRunner {
public:
    struct Finished {
        ChildProcess::Ended ended;
        std::string out;
        std::string err;
    };

    // The program: $VARNEL_SYNC_BINARY when set, else varnel-sync/varnel-sync in the
    // build folder of this test executable; "" when it is not there.
    static std::string binary();
    static std::string missingReason();

    explicit CommandLineRunner(std::filesystem::path temporaryFolder);

    const std::filesystem::path& temporaryFolder() const { return tmp_; }

    // `varnel-sync --isolated ARGUMENTS...` to its end; output captured.
    Finished run(const std::vector<std::string>& arguments,
                 const std::map<std::string, std::string>& environment = {}) const;
    // The same, started and left running (output in temporaryFolder()/last-output[.err]).
    ChildProcess start(const std::vector<std::string>& arguments,
                       const std::map<std::string, std::string>& environment = {}) const;
    // `profile add NAME --source S --destination D OPTIONS...`; the new profile's id.
    // Throws std::runtime_error when the command fails.
    std::string addProfile(const std::string& name, const std::filesystem::path& source,
                           const std::filesystem::path& destination, const std::vector<std::string>& options) const;

private:
    std::vector<std::string> command(const std::vector<std::string>& arguments) const;
    std::map<std::string, std::string> environmentWith(const std::map<std::string, std::string>& extra) const;

    std::filesystem::path tmp_;
};

}  // namespace varnel::testing
