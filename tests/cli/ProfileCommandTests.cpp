#include "cli/CliFixture.hpp"

#include "common/Uuid.hpp"

namespace varnel::testing {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;

class ProfileCommandTest : public CliTest {};

TEST_F(ProfileCommandTest, AddListShowEditAndRemoveAProfile) {
    const auto added = run({"profile", "add", "Photos", "--source", source().string(), "--destination",
                            destination().string(), "--mode", "mirror", "--durability", "maximum", "--verify",
                            "--exclude", "ext:tmp", "--exclude-case-sensitive", "glob:*.BAK", "--schedule",
                            "weekly:mon:08:30", "--warn-items", "5"});
    ASSERT_EQ(added.code, 0) << added.err;
    const std::string id = added.out.substr(0, added.out.size() - 1);
    EXPECT_TRUE(Uuid::parse(id)) << "profile add prints only the id: " << added.out;

    const auto list = run({"profile", "list"});
    EXPECT_EQ(list.code, 0);
    EXPECT_THAT(list.out, HasSubstr("Photos"));
    EXPECT_THAT(list.out, HasSubstr("Weekly on Monday at 08:30"));

    const auto show = run({"profile", "show", "photos"});  // names match in any case
    ASSERT_EQ(show.code, 0) << show.err;
    EXPECT_THAT(show.out, HasSubstr(id));
    EXPECT_THAT(show.out, HasSubstr("Mirror"));
    EXPECT_THAT(show.out, HasSubstr("Maximum"));
    EXPECT_THAT(show.out, HasSubstr("(ext:tmp)"));
    EXPECT_THAT(show.out, HasSubstr("(case-sensitive glob:*.BAK)"));
    EXPECT_THAT(show.out, HasSubstr("above 5 items"));

    // A new destination re-records its folder; options change; the name may change.
    const auto elsewhere = temp.path() / "elsewhere";
    std::filesystem::create_directories(elsewhere);
    const auto edited = run({"profile", "edit", id, "--name", "Pictures", "--destination", elsewhere.string(),
                             "--mode", "update", "--clear-excludes", "--no-verify"});
    ASSERT_EQ(edited.code, 0) << edited.err;
    const auto json = run({"profile", "show", "Pictures", "--json"}).json();
    EXPECT_EQ(json["id"], id);
    EXPECT_EQ(json["mode"], "update");
    EXPECT_EQ(json["verification"], "none");
    EXPECT_EQ(json["destinationDisplayPath"], std::filesystem::canonical(elsewhere).string());
    EXPECT_TRUE(json.contains("destinationVolume"));
    EXPECT_TRUE(json["exclusionRules"].empty());
    EXPECT_EQ(json["schedule"]["kind"], "weekly");
    EXPECT_EQ(json["schedule"]["weekday"], 2);

    ASSERT_EQ(run({"profile", "remove", "Pictures"}).code, 0);
    EXPECT_EQ(run({"--json", "profile", "list"}).json()["profiles"].size(), 0u);
}

TEST_F(ProfileCommandTest, GlobalOptionsAreAcceptedAfterTheCommand) {
    ASSERT_EQ(run({"profile", "add", "A", "--source", source().string(), "--destination", destination().string()}).code, 0);
    const auto before = run({"--json", "profile", "list"});
    const auto after = run({"profile", "list", "--json"});
    ASSERT_EQ(after.code, 0) << after.err;
    EXPECT_EQ(before.json(), after.json());
    EXPECT_EQ(after.json()["profiles"][0]["name"], "A");
}

TEST_F(ProfileCommandTest, BadInputIsRefusedWithTheAllowedValuesAndChangesNothing) {
    const std::vector<std::string> base{"profile", "add", "P", "--source", source().string(), "--destination",
                                        destination().string()};
    const auto with = [&](std::vector<std::string> extra) {
        auto arguments = base;
        arguments.insert(arguments.end(), extra.begin(), extra.end());
        return run(arguments);
    };
    struct Case {
        std::vector<std::string> extra;
        std::string expected;
    };
    const std::vector<Case> cases{
        {{"--mode", "copy"}, "“copy” is not a valid value for --mode. Choose one of: update, mirror."},
        {{"--durability", "safe"}, "Choose one of: fast, durable, maximum."},
        {{"--metadata", "all"}, "Choose one of: basic, extended, strict."},
        {{"--hidden", "yes"}, "Choose one of: include, exclude."},
        {{"--online-only", "never"}, "Choose one of: download, skip."},
        {{"--exclude", "dir:build"}, "Choose one of: path, folder, file, ext, glob."},
        {{"--exclude", "folder:"}, "has no value after the colon"},
        {{"--schedule", "daily:25:00"}, "Write it as HH:MM"},
        {{"--schedule", "monthly"}, "Choose one of: off, hourly:N, daily:HH:MM, weekly:DAY:HH:MM, when-connected."},
        {{"--schedule", "weekly:funday:10:00"}, "names no day of the week"},
        {{"--warn-percent", "0"}, "--warn-percent needs a whole number from 1 to 100, not “0”."},
        {{"--warn-items", "many"}, "--warn-items needs a whole number"},
        {{"--verify", "--no-verify"}, "Choose either --verify or --no-verify"},
    };
    for (const auto& c : cases) {
        const auto result = with(c.extra);
        EXPECT_EQ(result.code, 2) << c.extra.front();
        EXPECT_THAT(result.err, HasSubstr(c.expected)) << c.extra.front();
    }
    EXPECT_FALSE(std::filesystem::exists(temp.path() / "tmp" / "varnelsync-profiles.json"));

    const auto missing = run({"profile", "add", "P", "--source", (temp.path() / "nowhere").string(), "--destination",
                              destination().string()});
    EXPECT_EQ(missing.code, 2);
    EXPECT_THAT(missing.err, HasSubstr("The source folder no longer exists at"));

    ASSERT_EQ(with({}).code, 0);
    const auto twice = with({});
    EXPECT_EQ(twice.code, 2);
    EXPECT_THAT(twice.err, HasSubstr("A profile named “P” already exists."));

    const auto unknown = run({"profile", "show", "Nope"});
    EXPECT_EQ(unknown.code, 2);
    EXPECT_THAT(unknown.err, HasSubstr("No profile is named “Nope”"));

    const auto nothing = run({"profile", "edit", "P"});
    EXPECT_EQ(nothing.code, 2);
    EXPECT_THAT(nothing.err, HasSubstr("Nothing to change"));

    const auto usage = run({"profile", "add", "Q"});  // CLI11 itself: required options
    EXPECT_EQ(usage.code, 2);
    EXPECT_THAT(usage.err, HasSubstr("--source is required"));
    EXPECT_THAT(usage.out, Not(HasSubstr("Q")));
}

}  // namespace
}  // namespace varnel::testing
