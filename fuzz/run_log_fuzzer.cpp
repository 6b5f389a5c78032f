// Run logs: every line either decodes or fails with a DecodingError ("Unsupported log
// value" for values outside the four kinds); a decoded record survives encode → decode;
// a whole log reads as its decodable lines when only the last line is damaged and fails
// with a DecodingError when any earlier one is.

#include "FuzzCheck.hpp"

#include "common/DecodingError.hpp"
#include "logs/LogRecord.hpp"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace {

std::optional<varnel::LogRecord> decodedOrNone(const std::string& line) {
    try {
        return varnel::decodeLine(line);
    } catch (const varnel::DecodingError&) {
        return std::nullopt;
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);

    std::vector<std::optional<varnel::LogRecord>> lines;  // non-empty lines, in order
    for (std::size_t start = 0; start < text.size();) {
        std::size_t end = text.find('\n', start);
        if (end == std::string_view::npos) end = text.size();
        if (end > start) {
            const std::string line(text.substr(start, end - start));
            auto record = decodedOrNone(line);
            if (record) {
                const std::string encoded = varnel::encodeLine(*record);
                FUZZ_CHECK(encoded.find('\n') == std::string::npos);
                const auto again = decodedOrNone(encoded);
                FUZZ_CHECK(again && *again == *record);
                FUZZ_CHECK(varnel::encodeLine(*again) == encoded);
            }
            lines.push_back(std::move(record));
        }
        start = end + 1;
    }

    bool earlierLineDamaged = false;
    std::vector<varnel::LogRecord> expected;
    for (std::size_t i = 0; i < lines.size(); ++i) {
        if (lines[i]) {
            expected.push_back(*lines[i]);
        } else if (i + 1 < lines.size()) {
            earlierLineDamaged = true;
        }
    }
    try {
        const auto records = varnel::decodeLog(text);
        FUZZ_CHECK(!earlierLineDamaged && records == expected);
    } catch (const varnel::DecodingError&) {
        FUZZ_CHECK(earlierLineDamaged);
    }
    return 0;
}
