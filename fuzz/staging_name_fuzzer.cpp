// Staging names: parsing any bytes never crashes and describes the name it accepted;
// every made name fits in one file-name component and parses back to its intended name
// (shortened to the budget when long) and run tag.
//
// Input: one flag byte (odd: with a run id), 16 bytes of run id, 16 bytes of unique id,
// then the intended name. The whole input is also parsed as a name.

#include "FuzzCheck.hpp"

#include "common/Unicode.hpp"
#include "transfer/PartialFileNaming.hpp"

#include <algorithm>
#include <array>
#include <cctype>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>

namespace naming = varnel::PartialFileNaming;

namespace {

constexpr std::size_t uuidLength = 36;

varnel::Uuid uuidFrom(const std::uint8_t* bytes) {
    std::array<std::uint8_t, 16> value{};
    std::memcpy(value.data(), bytes, value.size());
    return varnel::Uuid(value);
}

void checkParse(std::string_view name) {
    const auto parsed = naming::parse(name);
    FUZZ_CHECK(parsed.has_value() == naming::isStagingName(name));
    if (!parsed) return;
    const std::string& intended = parsed->intendedName;
    FUZZ_CHECK(!intended.empty());
    FUZZ_CHECK(name.substr(0, 1 + intended.size()) == "." + intended);
    const std::string_view afterName = name.substr(1 + intended.size());
    const bool current = afterName.starts_with(naming::currentMarker);
    FUZZ_CHECK(current || afterName.starts_with(naming::legacyMarker));
    const std::size_t markerLength = current ? naming::currentMarker.size() : naming::legacyMarker.size();
    if (parsed->runTag) {
        const std::string& tag = *parsed->runTag;
        FUZZ_CHECK(tag.size() == 8);
        FUZZ_CHECK(std::all_of(tag.begin(), tag.end(), [](char c) { return std::isxdigit(static_cast<unsigned char>(c)) != 0; }));
        FUZZ_CHECK(afterName.substr(markerLength, 9) == tag + "-");
    }
    const std::size_t tail = parsed->runTag ? 9 + uuidLength : uuidLength;
    FUZZ_CHECK(afterName.size() == markerLength + tail);
    FUZZ_CHECK(varnel::Uuid::parse(name.substr(name.size() - uuidLength)).has_value());
}

void checkMakeAndParse(std::string_view intended, const std::optional<varnel::Uuid>& runID, const varnel::Uuid& unique) {
    const std::string name = naming::makeStagingName(intended, runID, unique);
    FUZZ_CHECK(name.size() <= naming::maximumNameBytes);
    FUZZ_CHECK(name.ends_with(unique.string()));
    // A name holding the marker itself cannot be told apart from a staging name's own.
    if (intended.empty() || intended.find(naming::currentMarker) != std::string_view::npos) return;

    const auto parsed = naming::parse(name);
    FUZZ_CHECK(parsed.has_value());
    FUZZ_CHECK(parsed->runTag == (runID ? std::optional<std::string>(naming::runTag(*runID)) : std::nullopt));
    const std::size_t budget = naming::intendedNameBudget(runID.has_value());
    if (intended.size() <= budget) {
        FUZZ_CHECK(parsed->intendedName == intended);
        return;
    }
    // Shortened: valid UTF-8, a prefix of the name (invalid bytes repaired), cut within
    // one character (at most four bytes) of the budget.
    const std::string& kept = parsed->intendedName;
    FUZZ_CHECK(varnel::unicode::isValidUTF8(kept));
    FUZZ_CHECK(!kept.empty() && kept.size() <= budget && kept.size() + 4 >= budget);
    FUZZ_CHECK(varnel::unicode::repairUTF8(intended).starts_with(kept));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view whole(reinterpret_cast<const char*>(data), size);
    checkParse(whole);
    if (size < 33) return 0;
    const bool withRunID = (data[0] & 1) != 0;
    const std::optional<varnel::Uuid> runID = withRunID ? std::optional(uuidFrom(data + 1)) : std::nullopt;
    checkMakeAndParse(whole.substr(33), runID, uuidFrom(data + 17));
    return 0;
}
