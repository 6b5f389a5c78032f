#include "common/ByteCount.hpp"
#include "common/Date.hpp"
#include "common/Unicode.hpp"
#include "common/Uuid.hpp"

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <climits>

namespace varnel {
namespace {

TEST(ByteCountTest, SmallValuesAsBytesAndLargerInDecimalUnits) {
    const std::vector<std::pair<std::int64_t, std::string>> cases = {
        {0, "0 bytes"},
        {1, "1 bytes"},
        {999, "999 bytes"},
        {-999, "-999 bytes"},
        {1000, "1 KB"},
        {1500, "1.5 KB"},
        {-1500, "-1.5 KB"},
        {999'949, "999.9 KB"},
        {999'999, "1 MB"},  // rounds up into the next unit, never "1000 KB"
        {1'500'000'000, "1.5 GB"},
        {2'000'000'000'000, "2 TB"},
        {25'000'000'000, "25 GB"},
        {10'000'000'000'000'000, "10000 TB"},  // no unit above TB
        {INT64_MIN, "-9223372 TB"},
    };
    for (const auto& [bytes, expected] : cases) {
        EXPECT_EQ(formatByteCount(bytes), expected) << bytes;
    }
}

TEST(DateTest, ISO8601SecondsInUTC) {
    const auto date = parseISO8601("2026-03-01T09:30:00Z");
    ASSERT_TRUE(date);
    EXPECT_EQ(formatISO8601(*date), "2026-03-01T09:30:00Z");
    EXPECT_EQ(std::chrono::system_clock::to_time_t(*date), 1772357400);

    EXPECT_EQ(formatISO8601(*parseISO8601("2026-03-01T10:30:00+01:00")), "2026-03-01T09:30:00Z");
    EXPECT_EQ(formatISO8601(*parseISO8601("2026-03-01T09:30:00.999Z")), "2026-03-01T09:30:00Z");
    EXPECT_EQ(formatISO8601(*parseISO8601("1969-12-31T23:59:59Z")), "1969-12-31T23:59:59Z");
    // Beyond what a nanosecond clock can hold: clamped, never wrapped into another year.
    EXPECT_EQ(formatISO8601(*parseISO8601("9999-12-31T23:59:59Z")), "2250-12-31T00:00:00Z");
    EXPECT_EQ(*parseISO8601("0001-01-01T00:00:00Z"), distantPast());
    EXPECT_EQ(formatISO8601(distantPast()), "1700-01-01T00:00:00Z");
    for (const char* bad : {"", "2026-03-01", "2026-03-01T09:30:00", "2026-13-01T09:30:00Z", "2026-02-30T00:00:00Z",
                            "2026-03-01T09:30:00Zjunk", "2026-03-01 09:30:00Z"}) {
        EXPECT_FALSE(parseISO8601(bad)) << bad;
    }
}

TEST(UuidTest, ParsesEitherCaseAndPrintsUpperCase) {
    const auto uuid = Uuid::parse("3f2a9c10-7b44-4a0e-8e11-2c5d9f00a1b2");
    ASSERT_TRUE(uuid);
    EXPECT_EQ(uuid->string(), "3F2A9C10-7B44-4A0E-8E11-2C5D9F00A1B2");
    EXPECT_EQ(Uuid::parse(uuid->string()), uuid);
    for (const char* bad : {"", "3f2a9c10-7b44-4a0e-8e11-2c5d9f00a1b", "3f2a9c107b444a0e8e112c5d9f00a1b2xxxx",
                            "3f2a9c10-7b44-4a0e-8e11-2c5d9f00a1bg", "{3f2a9c10-7b44-4a0e-8e11-2c5d9f00a1b}"}) {
        EXPECT_FALSE(Uuid::parse(bad)) << bad;
    }
    EXPECT_NE(Uuid::random(), Uuid::random());
}

TEST(UuidTest, RandomOnesAreVersionFourAndAForkedChildNeverRepeatsItsParent) {
    const std::string text = Uuid::random().string();
    EXPECT_EQ(text[14], '4') << text;
    EXPECT_NE(std::string("89AB").find(text[19]), std::string::npos) << text;

    // The child would hand out the parent's next identifier if it kept its random bytes.
    int channel[2];
    ASSERT_EQ(::pipe(channel), 0);
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        const std::string made = Uuid::random().string();
        ::_exit(::write(channel[1], made.data(), made.size()) == static_cast<ssize_t>(made.size()) ? 0 : 1);
    }
    const std::string parent = Uuid::random().string();
    char made[36];
    EXPECT_EQ(::read(channel[0], made, sizeof made), static_cast<ssize_t>(sizeof made));
    int status = 0;
    ::waitpid(child, &status, 0);
    ::close(channel[0]);
    ::close(channel[1]);
    EXPECT_NE(std::string(made, sizeof made), parent);
}

TEST(UnicodeTest, NormalisesFoldsCaseAndTrims) {
    EXPECT_EQ(unicode::toNFC("e\xCC\x81"), "\xC3\xA9");
    EXPECT_EQ(unicode::toLower("\xC3\x89T\xC3\x89"), "\xC3\xA9t\xC3\xA9");  // ÉTÉ -> été
    EXPECT_EQ(unicode::trimWhitespace(" \n\t a b \xE2\x80\x83\n"), "a b");  // includes an em space
    EXPECT_EQ(unicode::graphemeClusters("ae\xCC\x81\xF0\x9F\x87\xA9\xF0\x9F\x87\xAA").size(), 3u);  // a, é, flag
    EXPECT_FALSE(unicode::isValidUTF8("\xC3"));
    // Bad bytes after a run of ASCII, and good ones between two runs.
    EXPECT_FALSE(unicode::isValidUTF8("photo-0001\xC3"));
    EXPECT_FALSE(unicode::isValidUTF8("report\xFF.txt"));
    EXPECT_TRUE(unicode::isValidUTF8("caf\xC3\xA9-menu.txt"));
    EXPECT_TRUE(unicode::isValidUTF8(""));
    EXPECT_EQ(unicode::repairUTF8("a\xC3"), "a\xEF\xBF\xBD");
}

// ASCII is checked a word at a time: a byte above 0x7F must count wherever it falls,
// inside a word, on its edge, or in the tail after the last whole word.
TEST(UnicodeTest, FindsANonASCIIByteAtEveryPosition) {
    for (std::size_t length = 0; length <= 24; ++length) {
        const std::string ascii(length, 'a');
        EXPECT_TRUE(unicode::isASCII(ascii)) << length;
        for (std::size_t at = 0; at < length; ++at) {
            std::string invalid = ascii;
            invalid[at] = '\xFF';
            EXPECT_FALSE(unicode::isASCII(invalid)) << length << " " << at;
            EXPECT_FALSE(unicode::isValidUTF8(invalid)) << length << " " << at;
            EXPECT_FALSE(unicode::isNFC(invalid)) << length << " " << at;

            const std::string accented = ascii.substr(0, at) + "\xC3\xA9" + ascii.substr(at);  // é
            EXPECT_FALSE(unicode::isASCII(accented)) << length << " " << at;
            EXPECT_TRUE(unicode::isValidUTF8(accented)) << length << " " << at;
            EXPECT_TRUE(unicode::isNFC(accented)) << length << " " << at;
            // e + combining acute: valid, but not composed.
            EXPECT_FALSE(unicode::isNFC(ascii.substr(0, at) + "e\xCC\x81" + ascii.substr(at))) << length << " " << at;
        }
    }
}

}  // namespace
}  // namespace varnel
