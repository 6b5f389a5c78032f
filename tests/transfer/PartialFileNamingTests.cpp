#include "transfer/PartialFileNaming.hpp"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <utility>

namespace varnel::testing {
namespace {

namespace naming = PartialFileNaming;
using naming::ParsedName;

const Uuid runID = *Uuid::parse("3F2A9C10-7B44-4A0E-8E11-2C5D9F00A1B2");
const Uuid uniqueID = *Uuid::parse("5D1E0B7A-4C2F-4E8B-9A61-0F3B2C7D8E91");
const std::string uuidText = "5D1E0B7A-4C2F-4E8B-9A61-0F3B2C7D8E91";

std::string intendedNameOf(const std::string& stagingName) {
    const auto parsed = naming::parse(stagingName);
    return parsed ? parsed->intendedName : "<not a staging name>";
}

TEST(PartialFileNamingTests, MakesTheDocumentedLayout) {
    EXPECT_EQ(naming::makeStagingName("Report.pdf", runID, uniqueID),
              ".Report.pdf.varnelsync-partial-3f2a9c10-5D1E0B7A-4C2F-4E8B-9A61-0F3B2C7D8E91");
    EXPECT_EQ(naming::makeStagingName("Report.pdf", std::nullopt, uniqueID),
              ".Report.pdf.varnelsync-partial-5D1E0B7A-4C2F-4E8B-9A61-0F3B2C7D8E91");
    EXPECT_EQ(naming::runTag(runID), "3f2a9c10");

    // The unique part is fresh each time, so repeated attempts never collide.
    EXPECT_NE(naming::makeStagingName("Report.pdf", runID), naming::makeStagingName("Report.pdf", runID));
}

TEST(PartialFileNamingTests, LongASCIINamesFillExactly255Bytes) {
    const std::string longName(300, 'a');

    const std::string tagged = naming::makeStagingName(longName, runID);
    EXPECT_EQ(tagged.size(), 255u);
    EXPECT_EQ(intendedNameOf(tagged), std::string(189, 'a'));

    const std::string untagged = naming::makeStagingName(longName, std::nullopt);
    EXPECT_EQ(untagged.size(), 255u);
    EXPECT_EQ(intendedNameOf(untagged), std::string(198, 'a'));

    // A name exactly at the budget is kept whole.
    EXPECT_EQ(intendedNameOf(naming::makeStagingName(std::string(189, 'b'), runID)), std::string(189, 'b'));
}

TEST(PartialFileNamingTests, CutNeverLeavesHalfACharacter) {
    const std::string twoByte = "\xC3\xA9";          // é
    const std::string threeByte = "\xE2\x82\xAC";    // €
    const std::string fourByte = "\xF0\x9F\x98\x80"; // 😀

    // 187 ASCII bytes, then é ends exactly at byte 189: the whole é still goes.
    const std::string endsOnBoundary = std::string(187, 'a') + twoByte + std::string(20, 'z');
    EXPECT_EQ(intendedNameOf(naming::makeStagingName(endsOnBoundary, runID)), std::string(187, 'a'));

    // The cut at 189 falls after the first byte of € (bytes 189..191).
    const std::string cutInThree = std::string(188, 'a') + threeByte + "tail";
    EXPECT_EQ(intendedNameOf(naming::makeStagingName(cutInThree, runID)), std::string(188, 'a'));

    // The cut at 198 falls after the third byte of 😀 (bytes 196..199).
    const std::string cutInFour = std::string(195, 'a') + fourByte + "tail";
    EXPECT_EQ(intendedNameOf(naming::makeStagingName(cutInFour, std::nullopt)), std::string(195, 'a'));

    // A name of only multi-byte characters loses the one at the cut, keeps the rest whole.
    std::string euros;
    for (int i = 0; i < 100; ++i) euros += threeByte;
    const std::string kept = intendedNameOf(naming::makeStagingName(euros, runID));
    EXPECT_EQ(kept.size(), 186u);  // 62 whole characters; byte 189 ends the 63rd, which goes too
    EXPECT_EQ(kept, euros.substr(0, 186));
}

TEST(PartialFileNamingTests, InvalidUTF8IsRepairedOnlyWhenShortened) {
    // A short name is never touched, even when it is not valid UTF-8.
    const std::string invalidShort = "bad\xFFname";
    EXPECT_EQ(intendedNameOf(naming::makeStagingName(invalidShort, runID)), invalidShort);

    // A stray continuation byte in the kept part becomes U+FFFD, whose three bytes count
    // against the budget: the staging name still fits in 255 bytes.
    const std::string invalidLong = "x\x80" + std::string(300, 'a');
    const std::string made = naming::makeStagingName(invalidLong, runID);
    EXPECT_EQ(intendedNameOf(made), "x\xEF\xBF\xBD" + std::string(185, 'a'));
    EXPECT_EQ(made.size(), 255u);
    // A long name of invalid bytes only: the cut at 198 ends the 66th replacement
    // character, which goes too.
    const std::string invalidOnly = naming::makeStagingName(std::string(255, '\xFF'), std::nullopt);
    std::string replacements;
    for (int i = 0; i < 65; ++i) replacements += "\xEF\xBF\xBD";
    EXPECT_EQ(intendedNameOf(invalidOnly), replacements);
}

TEST(PartialFileNamingTests, MadeNamesParseBack) {
    for (const std::string name : {"Report.pdf", "a", ".hidden", "Ünïcødé name.txt", "x.dovrasync-partial-y"}) {
        SCOPED_TRACE(name);
        EXPECT_EQ(naming::parse(naming::makeStagingName(name, runID)), (ParsedName{name, "3f2a9c10"}));
        EXPECT_EQ(naming::parse(naming::makeStagingName(name, std::nullopt)), (ParsedName{name, std::nullopt}));
    }
    const auto longParsed = naming::parse(naming::makeStagingName(std::string(400, 'q'), runID));
    EXPECT_EQ(longParsed, (ParsedName{std::string(189, 'q'), "3f2a9c10"}));
}

TEST(PartialFileNamingTests, ParsesWellFormedNamesAndRejectsEveryMalformedOne) {
    const std::pair<std::string, std::optional<ParsedName>> cases[] = {
        {".x.varnelsync-partial-" + uuidText, ParsedName{"x", std::nullopt}},
        {".x.varnelsync-partial-1a2b3c4d-" + uuidText, ParsedName{"x", "1a2b3c4d"}},
        // Upper-case tags are accepted and kept as written; lower-case UUIDs are accepted.
        {".x.varnelsync-partial-1A2B3C4D-" + uuidText, ParsedName{"x", "1A2B3C4D"}},
        {".x.varnelsync-partial-5d1e0b7a-4c2f-4e8b-9a61-0f3b2c7d8e91", ParsedName{"x", std::nullopt}},
        {".photo.jpg.dovrasync-partial-" + uuidText, ParsedName{"photo.jpg", std::nullopt}},
        {".photo.jpg.dovrasync-partial-0badcafe-" + uuidText, ParsedName{"photo.jpg", "0badcafe"}},
        {"x.varnelsync-partial-" + uuidText, std::nullopt},               // no leading "."
        {"", std::nullopt},                                               // nothing at all
        {"..varnelsync-partial-" + uuidText, std::nullopt},               // empty intended name
        {".varnelsync-partial-" + uuidText, std::nullopt},                // the marker is only searched after the "."
        {".x.varnelsync-partial-" + uuidText.substr(1), std::nullopt},    // 35-character tail
        {".x.varnelsync-partial-" + uuidText + "0", std::nullopt},        // 37-character tail
        {".x.varnelsync-partial-1a2b3c4-" + uuidText, std::nullopt},      // 44-character tail
        {".x.varnelsync-partial-1a2b3c4d0-" + uuidText, std::nullopt},    // 46-character tail
        {".x.varnelsync-partial-1a2b3c4g-" + uuidText, std::nullopt},     // "g" is not hexadecimal
        {".x.varnelsync-partial-1a2b3c4d_" + uuidText, std::nullopt},     // 9th character is not "-"
        {".x.varnelsync-partial-5D1E0B7A_4C2F-4E8B-9A61-0F3B2C7D8E91", std::nullopt},  // not a UUID
        {".x.VARNELSYNC-PARTIAL-" + uuidText, std::nullopt},              // the marker is case-sensitive
        {".x.varnelsync-partial-", std::nullopt},                         // no tail
        {".Report.pdf", std::nullopt},                                    // no marker
        // The first marker found decides alone: the current one, with a bad tail, hides a
        // valid legacy form after it; it is tried first even when the legacy one comes
        // earlier; and only its first occurrence counts.
        {".x.varnelsync-partial-junk.dovrasync-partial-" + uuidText, std::nullopt},
        {".a.dovrasync-partial-b.varnelsync-partial-" + uuidText, ParsedName{"a.dovrasync-partial-b", std::nullopt}},
        {".a.varnelsync-partial-b.varnelsync-partial-" + uuidText, std::nullopt},
    };
    for (const auto& [name, expected] : cases) {
        SCOPED_TRACE(name);
        EXPECT_EQ(naming::parse(name), expected);
        EXPECT_EQ(naming::isStagingName(name), expected.has_value());
    }
}

}  // namespace
}  // namespace varnel::testing
