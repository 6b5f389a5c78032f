// The built varnel-sync run as a real process, with stdin not a terminal: exit statuses
// and the terminal-less confirmation rule as scripts see them.

#include "cli/CliFixture.hpp"

#include <sys/wait.h>

#include <cstdio>
#include <fstream>

namespace varnel::testing {
namespace {

using ::testing::HasSubstr;

class ProcessTest : public CliTest {
protected:
    struct Exit {
        int status = -1;
        std::string out;
        std::string err;
    };

    static std::string quoted(const std::string& text) {
        std::string result = "'";
        for (const char c : text) result += c == '\'' ? std::string("'\\''") : std::string(1, c);
        return result + "'";
    }

    Exit spawn(const std::string& arguments) {
        const auto errFile = temp.path() / "stderr.txt";
        const std::string command = "TMPDIR=" + quoted((temp.path() / "tmp").string()) + " " + VARNEL_SYNC_BINARY +
                                    " --isolated " + arguments + " </dev/null 2>" + quoted(errFile.string());
        Exit exit;
        FILE* pipe = ::popen(command.c_str(), "r");
        if (!pipe) return exit;
        char buffer[4096];
        std::size_t count = 0;
        while ((count = std::fread(buffer, 1, sizeof buffer, pipe)) > 0) exit.out.append(buffer, count);
        const int status = ::pclose(pipe);
        exit.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        std::ifstream err(errFile);
        exit.err.assign(std::istreambuf_iterator<char>(err), std::istreambuf_iterator<char>());
        return exit;
    }
};

TEST_F(ProcessTest, ExitStatusesOfAProcessWithoutATerminal) {
    const auto version = spawn("--version");
    EXPECT_EQ(version.status, 0);
    EXPECT_THAT(version.out, HasSubstr("varnel-sync "));

    const auto badValue = spawn("analyze --source " + quoted(source().string()) + " --destination " +
                                quoted(destination().string()) + " --durability quick");
    EXPECT_EQ(badValue.status, 2);
    EXPECT_THAT(badValue.err, HasSubstr("Choose one of: fast, durable, maximum."));

    EXPECT_EQ(spawn("frobnicate").status, 2);

    addMirrorProfile();  // in-process, into the same isolated profiles file
    const auto before = tree(destination());
    const auto refused = spawn("sync Photos");
    EXPECT_EQ(refused.status, 4) << refused.err;
    EXPECT_THAT(refused.err, HasSubstr("Nothing was written."));
    EXPECT_EQ(tree(destination()), before);

    const auto done = spawn("--json sync Photos --acknowledge-all --confirm ARCHIVE");
    EXPECT_EQ(done.status, 0) << done.err;
    EXPECT_EQ(nlohmann::json::parse(done.out)["outcome"], "success");
    EXPECT_TRUE(std::filesystem::exists(destination() / "Photos/a.jpg"));
}

}  // namespace
}  // namespace varnel::testing
