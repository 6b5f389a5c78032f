// Broken inputs: a profiles file damaged in every way a crash, a bad disk or a careless
// edit can damage it is set aside under a corrupt-marked name with the exact message,
// never overwritten and never a crash; a run log cut off mid-line still reads.

#include "common/DecodingError.hpp"
#include "logs/LogRecord.hpp"
#include "logs/RunLogStore.hpp"
#include "model/ExclusionRule.hpp"
#include "model/JSONProfileStore.hpp"
#include "transfer/SyncError.hpp"

#include "support/ChildProcess.hpp"
#include "support/Shorthand.hpp"
#include "support/TemporaryDirectory.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <set>
#include <string>
#include <vector>

namespace varnel::testing {
namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;

const std::string kMovedName = "profiles.corrupt-1767225600.json";
const std::string kMovedMessage = "The saved profiles could not be read and were moved to " + kMovedName + " (";

// A small but complete document: every prefix and every bit flip is cheap to try.
std::string smallValidDocument() {
    SyncProfile profile;
    profile.id = *Uuid::parse("0F8FAD5B-D9CB-469F-A165-70867728950E");
    profile.name = "Fotos";
    profile.sourceBookmark = BookmarkData{'/', 's'};
    profile.sourceDisplayPath = "/s";
    profile.exclusionRules = {ExclusionRule{*Uuid::parse("11111111-2222-3333-4444-555555555555"),
                                            ExclusionRule::Kind::fileName, ".DS_Store", false, true}};
    profile.lastSyncDate = *parseISO8601("2026-03-01T09:30:00Z");
    profile.createdAt = *parseISO8601("2025-06-01T12:00:00Z");
    profile.modifiedAt = profile.createdAt;
    return encodeProfileDocument(ProfileDocument{ProfileDocument::currentVersion, {profile}});
}

std::string repeated(const std::string& text, int count) {
    std::string result;
    result.reserve(text.size() * static_cast<std::size_t>(count));
    for (int i = 0; i < count; ++i) result += text;
    return result;
}

class BrokenProfilesFileTest : public ::testing::Test {
protected:
    // Loads whatever is at the profiles path. Returns the failure's detail, or "" when
    // the load succeeded; any other exception fails the test.
    std::string load() {
        try {
            store.load();
            return "";
        } catch (const SyncError& error) {
            const auto* failure = error.as<SyncError::ProfileStoreFailure>();
            return failure ? failure->detail : "unexpected error: " + error.message();
        }
    }

    // The damaged contents were moved aside intact with the exact message, nothing else
    // was left behind, and the next load starts afresh. Clears the moved file so the next
    // case gets the same name.
    void expectSetAside(const std::string& contents, const std::string& detail) {
        ASSERT_TRUE(detail.starts_with(kMovedMessage) && detail.ends_with(").")) << detail;
        EXPECT_GT(detail.size(), kMovedMessage.size() + 2) << "the reason is missing";
        EXPECT_EQ(namesIn(directory.path()), std::set<std::string>{kMovedName});
        EXPECT_EQ(readTextFile(directory / kMovedName), contents);
        fs::remove(directory / kMovedName);
    }

    void expectSetAside(const std::string& contents) {
        writeTextFile(file, contents);
        expectSetAside(contents, load());
    }

    TemporaryDirectory directory;
    FixedClock clock{*parseISO8601("2026-01-01T00:00:00Z")};  // 1767225600
    fs::path file = directory / "profiles.json";
    JSONProfileStore store{file, clock};
};

TEST_F(BrokenProfilesFileTest, EveryTruncationIsSetAsideAndNeverOverwritten) {
    const std::string document = smallValidDocument();
    for (std::size_t length = 0; length < document.size(); ++length) {
        SCOPED_TRACE("first " + std::to_string(length) + " bytes");
        expectSetAside(document.substr(0, length));
        if (HasFatalFailure()) return;
    }

    // The empty file, exactly; then a save after the set-aside writes a new file and
    // leaves the old data where the message said.
    writeTextFile(file, "");
    EXPECT_EQ(load(), kMovedMessage +
                          "parse error at line 1, column 1: syntax error while parsing value - unexpected end of "
                          "input; expected '[', '{', or a literal).");
    const std::string half = document.substr(0, document.size() / 2);
    writeTextFile(file, half);
    EXPECT_THAT(load(), HasSubstr("moved to profiles.corrupt-1767225600-2.json ("));
    store.save({});
    EXPECT_TRUE(store.load().empty());
    EXPECT_EQ(readTextFile(directory / kMovedName), "");
    EXPECT_EQ(readTextFile(directory / "profiles.corrupt-1767225600-2.json"), half);
}

TEST_F(BrokenProfilesFileTest, EverySingleBitFlipEitherLoadsUntouchedOrIsSetAside) {
    const std::string document = smallValidDocument();
    int setAside = 0;
    for (std::size_t byte = 0; byte < document.size(); ++byte) {
        for (int bit = 0; bit < 8; ++bit) {
            std::string flipped = document;
            flipped[byte] = static_cast<char>(flipped[byte] ^ (1 << bit));
            SCOPED_TRACE("byte " + std::to_string(byte) + " bit " + std::to_string(bit));
            writeTextFile(file, flipped);
            const std::string detail = load();
            if (detail.empty()) {
                // Still a valid document (a changed letter in a name, say): left as it was.
                EXPECT_EQ(namesIn(directory.path()), std::set<std::string>{"profiles.json"});
                EXPECT_EQ(readTextFile(file), flipped);
            } else {
                expectSetAside(flipped, detail);
                ++setAside;
            }
            if (HasFailure()) return;
        }
    }
    // Most flips break the structure, a required key, a UUID, an enumeration or a date
    // (about four in five here); the rest change a text or an optional key's name.
    EXPECT_GT(setAside, static_cast<int>(document.size()) * 4);
}

TEST_F(BrokenProfilesFileTest, InvalidUTF8IsSetAside) {
    const std::string document = smallValidDocument();
    const std::size_t name = document.find("Fotos");
    ASSERT_NE(name, std::string::npos);
    for (const std::string bad : {"\xFF", "\xC3\x28", "\xC0\xAF", "\xED\xA0\x80", "\xF4\x90\x80\x80", "\xE2\x82"}) {
        SCOPED_TRACE(::testing::PrintToString(bad));
        expectSetAside(document.substr(0, name) + bad + document.substr(name));
    }
}

TEST_F(BrokenProfilesFileTest, DeepNestingIsSetAsideWithoutExhaustingTheStack) {
    constexpr int depth = 200'000;
    const std::string arrays = repeated("[", depth) + repeated("]", depth);
    const std::string objects = repeated(R"({"a":)", depth) + "1" + repeated("}", depth);
    const std::string profileStart = R"({"version":1,"profiles":[{"id":"0F8FAD5B-D9CB-469F-A165-70867728950E",)";
    for (const std::string& contents : {
             arrays,                                                          // the document itself
             R"({"version":1,"profiles":)" + arrays + "}",                    // the list
             profileStart + R"("name":)" + arrays + "}]}",                    // a text field
             profileStart + R"("name":"A","exclusionRules":)" + arrays + "}]}",  // a list field
             profileStart + R"("name":"A","schedule":)" + objects + "}]}",    // a record field
             R"({"version":1,"profiles":)" + repeated("[", depth),            // never closed
         }) {
        SCOPED_TRACE(contents.substr(0, 80));
        expectSetAside(contents);
    }
}

TEST_F(BrokenProfilesFileTest, AFolderInPlaceOfTheFileIsSetAsideWithItsContents) {
    fs::create_directory(file);
    writeTextFile(file / "inside.txt", "kept");
    EXPECT_EQ(load(), kMovedMessage + "Is a directory).");
    EXPECT_EQ(readTextFile(directory / kMovedName / "inside.txt"), "kept");

    store.save({});
    EXPECT_TRUE(store.load().empty());
    EXPECT_EQ(readTextFile(directory / kMovedName / "inside.txt"), "kept");
}

// Run logs ---------------------------------------------------------------------------

class DamagedRunLogTest : public ::testing::Test {
protected:
    DamagedRunLogTest() {
        LogRecord start{"2026-01-01T00:00:00Z", "run.start", {}};
        start.add("runID", std::string("0F8FAD5B-D9CB-469F-A165-70867728950E"));
        start.add("sameVolume", false);
        LogRecord action{"2026-01-01T00:00:01Z", "action", {}};
        action.add("path", std::string("Fotos/a.jpg"));
        action.add("bytes", std::int64_t{123456});
        action.add("seconds", 0.25);
        LogRecord finish{"2026-01-01T00:00:02Z", "run.finish", {}};
        finish.add("outcome", std::string("failed"));
        records = {start, action, finish};
        for (const auto& record : records) lines.push_back(encodeLine(record));
    }

    std::vector<LogRecord> readBack(const std::string& contents) {
        writeTextFile(path, contents);
        return RunLogStore::readLog(path);
    }

    TemporaryDirectory directory;
    fs::path path = directory / "run-0F8FAD5B-D9CB-469F-A165-70867728950E.jsonl";
    std::vector<LogRecord> records;
    std::vector<std::string> lines;
};

TEST_F(DamagedRunLogTest, AHalfWrittenLastLineIsSkippedAtEveryCut) {
    const std::string complete = lines[0] + "\n" + lines[1] + "\n";
    const std::vector<LogRecord> firstTwo(records.begin(), records.begin() + 2);
    for (std::size_t cut = 1; cut < lines[2].size(); ++cut) {
        SCOPED_TRACE("last line cut after " + std::to_string(cut) + " bytes");
        EXPECT_EQ(readBack(complete + lines[2].substr(0, cut)), firstTwo);
    }
    // Whole but without its newline, it counts; zeros left by a power cut do not.
    EXPECT_EQ(readBack(complete + lines[2]), records);
    EXPECT_EQ(readBack(complete + std::string(512, '\0')), firstTwo);
    EXPECT_EQ(readBack(complete + lines[2].substr(0, 10) + "\n\n"), firstTwo);
}

TEST_F(DamagedRunLogTest, ADamagedLineBeforeTheLastStillFails) {
    for (const std::string& damaged :
         {lines[1].substr(0, 20), std::string(R"({"timestamp":"t","kind":"k","payload":{"v":null}})"),
          std::string(R"({"timestamp":"t","kind":"k","payload":[1]})"), repeated("[", 100'000),
          // Refused without being copied: a recursive copy of this overflowed the stack.
          R"({"timestamp":"t","kind":"k","payload":{"v":)" + repeated("[", 200'000) + repeated("]", 200'000) + "}}"}) {
        SCOPED_TRACE(damaged.substr(0, 60));
        EXPECT_THAT(thrownBy<DecodingError>([&] { readBack(lines[0] + "\n" + damaged + "\n" + lines[2] + "\n"); }).what(),
                    ::testing::StartsWith("Line 2: "));
    }
}

}  // namespace
}  // namespace varnel::testing
