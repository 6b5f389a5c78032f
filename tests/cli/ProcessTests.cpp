// The built varnel-sync run as a real process, with stdin not a terminal: exit statuses
// and the terminal-less confirmation rule as scripts see them.

#include "cli/CliFixture.hpp"
#include "support/CommandLineRunner.hpp"

namespace varnel::testing {
namespace {

using ::testing::HasSubstr;

TEST_F(CliTest, ExitStatusesOfAProcessWithoutATerminal) {
    if (CommandLineRunner::binary().empty()) GTEST_SKIP() << CommandLineRunner::missingReason();
    const CommandLineRunner process(temp.path() / "tmp");  // the same isolated profiles file
    const auto version = process.run({"--version"});
    EXPECT_EQ(version.ended.exitCode, 0);
    EXPECT_THAT(version.out, HasSubstr("varnel-sync "));

    EXPECT_EQ(process.run({"frobnicate"}).ended.exitCode, 2);

    addMirrorProfile();  // in-process
    const auto before = tree(destination());
    const auto refused = process.run({"sync", "Photos"});
    EXPECT_EQ(refused.ended.exitCode, 4) << refused.err;
    EXPECT_THAT(refused.err, HasSubstr("Nothing was written."));
    EXPECT_EQ(tree(destination()), before);

    const auto done = process.run({"--json", "sync", "Photos", "--acknowledge-all", "--confirm", "ARCHIVE"});
    EXPECT_EQ(done.ended.exitCode, 0) << done.err;
    EXPECT_EQ(nlohmann::json::parse(done.out)["outcome"], "success");
    EXPECT_TRUE(std::filesystem::exists(destination() / "Photos/a.jpg"));
}

}  // namespace
}  // namespace varnel::testing
