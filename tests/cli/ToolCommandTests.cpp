#include "cli/CliFixture.hpp"

#include "transfer/PartialFileNaming.hpp"
#include "varnel-sync/DestinationLock.hpp"

namespace varnel::testing {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;

class ToolCommandTest : public CliTest {
protected:
    // A Mirror profile that has archived three items in one run; returns the run's name.
    std::string archivedRun() {
        const std::string id = addMirrorProfile();
        const auto synced = run({"sync", "Photos", "--acknowledge-all", "--confirm", "ARCHIVE"});
        EXPECT_EQ(synced.code, 0) << synced.err;
        const auto runs = destination() / ".VarnelSync-Archive" / id;
        return std::filesystem::directory_iterator(runs)->path().filename().string();
    }
};

TEST_F(ToolCommandTest, ArchiveListItemsAndDeleteAfterAMirrorRun) {
    const std::string name = archivedRun();

    const auto list = run({"archive", "list", "Photos"});
    ASSERT_EQ(list.code, 0) << list.err;
    EXPECT_THAT(list.out, HasSubstr(name));
    EXPECT_THAT(list.out, HasSubstr("1 archive runs, 3 items, 10 bytes"));
    const auto json = run({"--json", "archive", "list", "Photos"}).json();
    EXPECT_EQ(json["runs"][0]["name"], name);
    EXPECT_EQ(json["runs"][0]["itemCount"], 3);
    EXPECT_EQ(json["totalBytes"], 10);

    const auto items = run({"archive", "items", "Photos", name});
    ASSERT_EQ(items.code, 0) << items.err;
    EXPECT_THAT(items.out, HasSubstr("old/stale.txt"));
    EXPECT_THAT(items.out, HasSubstr("extra.txt"));

    const auto folder = destination() / ".VarnelSync-Archive";
    const auto unconfirmed = run({"archive", "delete", "Photos", name});
    EXPECT_EQ(unconfirmed.code, 4);
    EXPECT_THAT(unconfirmed.err, HasSubstr("--confirm " + name));
    EXPECT_EQ(run({"archive", "delete", "Photos", name, "--confirm", "ARCHIVE"}).code, 4);
    for (const std::string& wrong : {std::string("old-stuff"), std::string(".."), std::string("a/b/c")}) {
        const auto refused = run({"archive", "delete", "Photos", wrong, "--confirm", wrong});
        EXPECT_EQ(refused.code, 2) << wrong;
    }
    ASSERT_EQ(tree(folder).size(), 5u);  // profile folder, run folder, old, old/stale.txt, extra.txt

    const auto deleted = run({"archive", "delete", "Photos", name, "--confirm", name});
    ASSERT_EQ(deleted.code, 0) << deleted.err;
    EXPECT_THAT(deleted.out, HasSubstr("Deleted archive run " + name + " (3 items, 10 bytes)."));
    EXPECT_EQ(tree(folder).size(), 1u);  // the profile folder stays
    EXPECT_THAT(run({"archive", "list", "Photos"}).out,
                HasSubstr("Mirror mode has not archived anything for this profile."));
}

TEST_F(ToolCommandTest, LeftoversListsAndCleansOnlyStagingNames) {
    addMirrorProfile();
    const std::string staging = PartialFileNaming::makeStagingName("b.jpg", Uuid::random());
    temp.writeFile("destination/Photos/" + staging, "half");
    temp.writeFile("destination/.b.jpg.varnelsync-partial-not-a-uuid", "mine");
    temp.writeFile("destination/.VarnelSync-Archive/P/2025-01-01-000000/" + staging, "archived");

    const auto list = run({"--json", "leftovers", "Photos"});
    ASSERT_EQ(list.code, 0) << list.err;
    const auto document = list.json();
    ASSERT_EQ(document["leftovers"].size(), 1u);
    EXPECT_EQ(document["leftovers"][0]["path"], "Photos/" + staging);
    EXPECT_EQ(document["leftovers"][0]["intendedName"], "b.jpg");
    EXPECT_EQ(document["leftovers"][0]["runTag"], *PartialFileNaming::parse(staging)->runTag);
    EXPECT_THAT(run({"leftovers", "Photos"}).out, HasSubstr("→ Photos/b.jpg"));

    {
        // While a run holds the destination, nothing is cleaned.
        const cli::DestinationLock running(std::filesystem::canonical(destination()).string());
        ASSERT_EQ(running.state(), cli::DestinationLock::State::held);
        const auto busy = run({"leftovers", "Photos", "--clean"});
        EXPECT_EQ(busy.code, 3);
        EXPECT_TRUE(std::filesystem::exists(destination() / "Photos" / staging));
    }
    const auto cleaned = run({"leftovers", "Photos", "--clean"});
    ASSERT_EQ(cleaned.code, 0) << cleaned.err;
    EXPECT_THAT(cleaned.out, HasSubstr("Removed 1 of 1 leftover staging files."));
    EXPECT_FALSE(std::filesystem::exists(destination() / "Photos" / staging));
    EXPECT_TRUE(std::filesystem::exists(destination() / ".b.jpg.varnelsync-partial-not-a-uuid"));
    EXPECT_TRUE(std::filesystem::exists(destination() / ".VarnelSync-Archive/P/2025-01-01-000000" / staging));
}

TEST_F(ToolCommandTest, LogsListAndShowTheRunsLogAndReport) {
    archivedRun();
    const auto list = run({"--json", "logs", "list"});
    ASSERT_EQ(list.code, 0) << list.err;
    const auto document = list.json();
    const auto& entry = document["runs"][0];
    EXPECT_EQ(entry["profileName"], "Photos");
    EXPECT_EQ(entry["outcome"], "success");
    EXPECT_EQ(entry["filesCopied"], 2);
    const std::string id = entry["runID"];
    EXPECT_THAT(run({"logs", "list"}).out, HasSubstr(id));

    const auto log = run({"logs", "show", id.substr(0, 8)});  // a unique beginning will do
    ASSERT_EQ(log.code, 0) << log.err;
    EXPECT_THAT(log.out, HasSubstr("run.start  runID=" + id));
    EXPECT_THAT(log.out, HasSubstr("action=archiveDestinationItem"));
    EXPECT_THAT(log.out, HasSubstr("outcome=success"));
    const auto records = run({"--json", "logs", "show", id}).json()["records"];
    EXPECT_EQ(records.front()["kind"], "run.start");
    EXPECT_EQ(records.back()["payload"]["outcome"], "success");

    EXPECT_THAT(run({"logs", "show", id, "--report"}).out, HasSubstr("Varnel Sync run report"));
    const auto unknown = run({"logs", "show", "00000000-0000-0000-0000-000000000000"});
    EXPECT_EQ(unknown.code, 2);
    EXPECT_THAT(unknown.err, HasSubstr("No run log has the id"));
}

}  // namespace
}  // namespace varnel::testing
