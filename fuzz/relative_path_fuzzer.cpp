// RelativePath: construction from any bytes agrees with a straightforward reading of the
// rules, never normalises what it keeps, and its JSON form, components, parent and
// canonical equality all describe the same path.

#include "FuzzCheck.hpp"

#include "common/DecodingError.hpp"
#include "common/Unicode.hpp"
#include "model/RelativePath.hpp"

#include <nlohmann/json.hpp>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

using varnel::RelativePath;

namespace {

// Valid: empty (the root), or pieces split at every "/" that are all non-empty, not "."
// or "..", and free of NUL.
bool isValidByRule(std::string_view text) {
    if (text.empty()) return true;
    std::vector<std::string_view> pieces;
    std::size_t start = 0;
    for (std::size_t i = 0; i <= text.size(); ++i) {
        if (i == text.size() || text[i] == '/') {
            pieces.push_back(text.substr(start, i - start));
            start = i + 1;
        }
    }
    for (const auto piece : pieces) {
        if (piece.empty() || piece == "." || piece == "..") return false;
        if (piece.find('\0') != std::string_view::npos) return false;
    }
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    const auto path = RelativePath::fromString(text);
    FUZZ_CHECK(path.has_value() == isValidByRule(text));

    // JSON holds only valid UTF-8; decoding a string agrees with construction and names
    // the refused text exactly.
    if (varnel::unicode::isValidUTF8(text)) {
        const nlohmann::json json = text;
        try {
            const auto decoded = json.get<RelativePath>();
            FUZZ_CHECK(path && decoded.value() == text);
        } catch (const varnel::DecodingError& error) {
            // Compared as C strings: what() ends at a NUL inside the text.
            const std::string expected = "Invalid relative path: " + text;
            FUZZ_CHECK(!path && std::strcmp(error.what(), expected.c_str()) == 0);
        }
    }
    if (!path) return 0;

    FUZZ_CHECK(path->value() == text);
    FUZZ_CHECK(path->isRoot() == text.empty());
    FUZZ_CHECK(nlohmann::json(*path).get<RelativePath>().value() == text);

    std::vector<std::string> components;
    for (const auto component : path->components()) {
        FUZZ_CHECK(RelativePath::isValidComponent(component));
        components.emplace_back(component);
    }
    const auto rebuilt = RelativePath::fromComponents(components);
    FUZZ_CHECK(rebuilt && rebuilt->value() == text && *rebuilt == *path);

    if (!path->isRoot()) {
        const RelativePath parent = path->parent();
        const auto again = parent.appending(path->lastComponent());
        FUZZ_CHECK(again && again->value() == text && *again == *path);
        FUZZ_CHECK(parent.isAncestorOf(*path) && !path->isAncestorOf(parent) && !path->isAncestorOf(*path));
    }

    // The precomposed spelling of a valid UTF-8 path is the same item, with the same hash.
    if (varnel::unicode::isValidUTF8(text)) {
        const auto composed = RelativePath::fromString(varnel::unicode::toNFC(text));
        FUZZ_CHECK(composed && *composed == *path);
        FUZZ_CHECK(std::hash<RelativePath>{}(*composed) == std::hash<RelativePath>{}(*path));
        FUZZ_CHECK((*composed <=> *path) == 0);
    }
    return 0;
}
