#include "common/Base64.hpp"

#include <gtest/gtest.h>

namespace varnel {
namespace {

std::vector<std::uint8_t> bytesOf(std::string_view text) {
    return {text.begin(), text.end()};
}

TEST(Base64, MatchesTheStandardTestVectors) {
    const std::pair<const char*, const char*> vectors[] = {
        {"", ""}, {"f", "Zg=="}, {"fo", "Zm8="}, {"foo", "Zm9v"}, {"foob", "Zm9vYg=="}, {"fooba", "Zm9vYmE="},
        {"foobar", "Zm9vYmFy"}};
    for (const auto& [plain, encoded] : vectors) {
        EXPECT_EQ(base64Encode(bytesOf(plain)), encoded);
        EXPECT_EQ(base64Decode(encoded), bytesOf(plain)) << encoded;
    }
}

TEST(Base64, RoundTripsEveryByteValue) {
    std::vector<std::uint8_t> all(256);
    for (std::size_t i = 0; i < all.size(); ++i) all[i] = static_cast<std::uint8_t>(i);
    for (std::size_t length = 250; length <= all.size(); ++length) {
        const std::vector<std::uint8_t> prefix(all.begin(), all.begin() + static_cast<std::ptrdiff_t>(length));
        EXPECT_EQ(base64Decode(base64Encode(prefix)), prefix);
    }
    EXPECT_EQ(base64Encode(std::vector<std::uint8_t>{0xFB, 0xFF}), "+/8=");
}

TEST(Base64, RefusesAnythingButCanonicalPaddedText) {
    for (const char* damaged : {"Zg=", "Zg", "Zh==", "Zm9=", "Z===", "Zm9v\n", "Zg==Zg==", "Zm-v", "Zm=v", "===="}) {
        EXPECT_EQ(base64Decode(damaged), std::nullopt) << damaged;
    }
}

}  // namespace
}  // namespace varnel
