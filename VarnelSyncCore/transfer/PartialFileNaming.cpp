#include "transfer/PartialFileNaming.hpp"

#include "common/Unicode.hpp"

#include <algorithm>
#include <array>
#include <cctype>

namespace varnel::PartialFileNaming {

namespace {

constexpr std::size_t uuidLength = 36;
constexpr std::size_t runTagLength = 8;
// A run tag, its "-" and the UUID.
constexpr std::size_t taggedTailLength = runTagLength + 1 + uuidLength;

bool isContinuationByte(unsigned char byte) { return byte >= 0x80 && byte <= 0xBF; }
bool isLeadByte(unsigned char byte) { return byte >= 0xC0; }

// Cuts `name` to at most `budget` bytes. The name is first repaired into valid UTF-8 (it
// may not have been valid): a replacement character takes three bytes where the invalid
// byte took one, so repairing after the cut could overrun the budget. Then trailing
// continuation bytes are dropped and one lead byte, which removes the character at the
// cut even when the cut falls just after its last byte: the result may be a few bytes
// short of the budget, but it never ends in half a character.
std::string shortened(std::string_view name, std::size_t budget) {
    if (name.size() <= budget) return std::string(name);
    const std::string valid = unicode::repairUTF8(name);
    std::string_view kept = std::string_view(valid).substr(0, budget);
    while (!kept.empty() && isContinuationByte(static_cast<unsigned char>(kept.back()))) {
        kept.remove_suffix(1);
    }
    if (!kept.empty() && isLeadByte(static_cast<unsigned char>(kept.back()))) {
        kept.remove_suffix(1);
    }
    return std::string(kept);
}

bool isHexDigits(std::string_view text) {
    return std::all_of(text.begin(), text.end(), [](char c) { return std::isxdigit(static_cast<unsigned char>(c)) != 0; });
}

// The run tag of the text after a marker, as optional-of-optional: outer none when the
// tail is malformed, inner none when it is well formed but carries no run tag.
std::optional<std::optional<std::string>> parseTail(std::string_view tail) {
    if (tail.size() == uuidLength) {
        if (!Uuid::parse(tail)) return std::nullopt;
        return std::optional<std::string>();
    }
    if (tail.size() == taggedTailLength) {
        const std::string_view tag = tail.substr(0, runTagLength);
        if (tail[runTagLength] != '-' || !isHexDigits(tag)) return std::nullopt;
        if (!Uuid::parse(tail.substr(runTagLength + 1))) return std::nullopt;
        return std::optional<std::string>(std::string(tag));
    }
    return std::nullopt;
}

}  // namespace

std::string runTag(const Uuid& runID) {
    std::string tag = runID.string().substr(0, runTagLength);
    for (char& c : tag) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return tag;
}

std::size_t intendedNameBudget(bool withRunTag) {
    const std::size_t fixed = 1 + currentMarker.size() + (withRunTag ? runTagLength + 1 : 0) + uuidLength;
    return std::max(maximumNameBytes - fixed, minimumIntendedNameBytes);
}

std::string makeStagingName(std::string_view intendedName, const std::optional<Uuid>& runID) {
    return makeStagingName(intendedName, runID, Uuid::random());
}

std::string makeStagingName(std::string_view intendedName, const std::optional<Uuid>& runID, const Uuid& uniqueID) {
    std::string name = ".";
    name += shortened(intendedName, intendedNameBudget(runID.has_value()));
    name += currentMarker;
    if (runID) {
        name += runTag(*runID);
        name += '-';
    }
    name += uniqueID.string();
    return name;
}

std::optional<ParsedName> parse(std::string_view name) {
    if (name.empty() || name.front() != '.') return std::nullopt;
    for (const std::string_view marker : std::array{currentMarker, legacyMarker}) {
        // Searched after the leading ".", so ".<marker><UUID>" has no marker of its own.
        const std::size_t position = name.find(marker, 1);
        if (position == std::string_view::npos) continue;
        // The first marker found decides; the other one is not tried.
        const std::string_view intendedName = name.substr(1, position - 1);
        if (intendedName.empty()) return std::nullopt;
        auto tag = parseTail(name.substr(position + marker.size()));
        if (!tag) return std::nullopt;
        return ParsedName{std::string(intendedName), std::move(*tag)};
    }
    return std::nullopt;
}

}  // namespace varnel::PartialFileNaming

std::size_t std::hash<varnel::PartialFileNaming::ParsedName>::operator()(
    const varnel::PartialFileNaming::ParsedName& name) const noexcept {
    const std::size_t intended = std::hash<std::string>{}(name.intendedName);
    const std::size_t tag = name.runTag ? std::hash<std::string>{}(*name.runTag) : 0x5bd1e995U;
    return intended ^ (tag + 0x9e3779b97f4a7c15ULL + (intended << 6) + (intended >> 2));
}
