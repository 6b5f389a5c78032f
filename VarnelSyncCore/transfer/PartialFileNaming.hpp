#pragma once

#include "common/Uuid.hpp"

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

// The one format of staging ("partial") file names: a hidden dot-file that names the
// final file it is meant to become, the run that wrote it and a random UUID, so that
// leftovers can always be recognised and two attempts never collide:
//
//   "." + intended name + ".varnelsync-partial-" + [run tag + "-"] + UUID
namespace varnel::PartialFileNaming {

// Written into every new staging name.
inline constexpr std::string_view currentMarker = ".varnelsync-partial-";
// Written by an earlier product generation: recognised when parsing, never produced.
inline constexpr std::string_view legacyMarker = ".dovrasync-partial-";

// A file-name component may hold at most this many bytes on the file systems we write.
inline constexpr std::size_t maximumNameBytes = 255;
// The intended name is never shortened below this, whatever the fixed pieces cost.
inline constexpr std::size_t minimumIntendedNameBytes = 8;

// What a staging name says about itself.
struct ParsedName {
    std::string intendedName;           // the final name the staging file was meant to take
    std::optional<std::string> runTag;  // 8 hex digits as written; absent for names made without a run id

    friend bool operator==(const ParsedName&, const ParsedName&) = default;
};

// The tag of a run: the first 8 characters of its canonical UUID text, lower-cased.
// Also names the run's folder in the staging area.
std::string runTag(const Uuid& runID);

// The number of bytes of the intended name that a staging name can keep: 189 with a
// run tag, 198 without.
std::size_t intendedNameBudget(bool withRunTag);

// A fresh staging name for `intendedName` (a single path component). Names longer than
// the budget are cut at a character boundary (see the .cpp for the exact rule); names
// that fit are kept byte for byte. Never fails.
std::string makeStagingName(std::string_view intendedName, const std::optional<Uuid>& runID);
// The same with the unique part given, for callers that need a reproducible name.
std::string makeStagingName(std::string_view intendedName, const std::optional<Uuid>& runID, const Uuid& uniqueID);

// The pieces of a staging name, or none when `name` is not one. Never throws: every
// malformed name is simply not a staging name.
std::optional<ParsedName> parse(std::string_view name);
// Asked of every scanned name: most do not start with ".", and are settled here.
inline bool isStagingName(std::string_view name) { return name.starts_with('.') && parse(name).has_value(); }

}  // namespace varnel::PartialFileNaming

template <>
struct std::hash<varnel::PartialFileNaming::ParsedName> {
    std::size_t operator()(const varnel::PartialFileNaming::ParsedName& name) const noexcept;
};
