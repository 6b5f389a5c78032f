#pragma once
// Base64 (RFC 4648, standard alphabet, with "=" padding, no line breaks): how byte blobs
// such as folder bookmarks are written inside JSON documents.

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace varnel {

std::string base64Encode(std::span<const std::uint8_t> bytes);
// None for anything but canonical padded Base64: a damaged blob must not decode to
// different bytes silently.
std::optional<std::vector<std::uint8_t>> base64Decode(std::string_view text);

}  // namespace varnel
