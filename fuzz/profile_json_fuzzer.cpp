// The profiles document: decoding any bytes either fails with a DecodingError or gives a
// document that survives encode → decode unchanged, and whose encoding is stable.

#include "FuzzCheck.hpp"

#include "common/DecodingError.hpp"
#include "model/JSONProfileStore.hpp"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace {

struct FixedClock final : varnel::Clock {
    varnel::Date now() const override { return *varnel::parseISO8601("2026-01-01T00:00:00Z"); }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    const FixedClock clock;
    varnel::ProfileDocument first;
    try {
        first = varnel::decodeProfileDocument(text, clock);
    } catch (const varnel::DecodingError&) {
        return 0;
    }
    const std::string encoded = varnel::encodeProfileDocument(first);
    // What the store writes it must read back; any exception here aborts the run.
    const varnel::ProfileDocument second = varnel::decodeProfileDocument(encoded, clock);
    // The migration mark is held in memory only: a saved profile is no longer legacy.
    for (auto& profile : first.profiles) profile.wasMigratedFromLegacySchema = false;
    FUZZ_CHECK(second == first);
    FUZZ_CHECK(varnel::encodeProfileDocument(second) == encoded);
    return 0;
}
