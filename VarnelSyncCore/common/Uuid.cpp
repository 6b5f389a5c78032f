#include "common/Uuid.hpp"

#include "common/DecodingError.hpp"

#include <nlohmann/json.hpp>
#include <uuid/uuid.h>

#include <algorithm>
#include <cctype>
#include <cstring>

namespace varnel {

Uuid Uuid::random() {
    uuid_t raw;
    uuid_generate_random(raw);
    std::array<std::uint8_t, 16> bytes{};
    std::memcpy(bytes.data(), raw, bytes.size());
    return Uuid(bytes);
}

std::optional<Uuid> Uuid::parse(std::string_view text) {
    if (text.size() != 36) return std::nullopt;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const bool dashPosition = i == 8 || i == 13 || i == 18 || i == 23;
        const auto c = static_cast<unsigned char>(text[i]);
        if (dashPosition ? c != '-' : !std::isxdigit(c)) return std::nullopt;
    }
    char buffer[37];
    std::memcpy(buffer, text.data(), 36);
    buffer[36] = '\0';
    uuid_t raw;
    if (uuid_parse(buffer, raw) != 0) return std::nullopt;
    std::array<std::uint8_t, 16> bytes{};
    std::memcpy(bytes.data(), raw, bytes.size());
    return Uuid(bytes);
}

std::string Uuid::string() const {
    uuid_t raw;
    std::memcpy(raw, bytes_.data(), bytes_.size());
    char buffer[37];
    uuid_unparse_upper(raw, buffer);
    return std::string(buffer, 36);
}

bool Uuid::isNil() const {
    return std::all_of(bytes_.begin(), bytes_.end(), [](std::uint8_t b) { return b == 0; });
}

void to_json(nlohmann::json& json, const Uuid& uuid) {
    json = uuid.string();
}

void from_json(const nlohmann::json& json, Uuid& uuid) {
    const auto& text = json.get_ref<const std::string&>();
    auto parsed = Uuid::parse(text);
    if (!parsed) {
        throw DecodingError("Invalid UUID: " + text);
    }
    uuid = *parsed;
}

}  // namespace varnel

std::size_t std::hash<varnel::Uuid>::operator()(const varnel::Uuid& uuid) const noexcept {
    std::uint64_t high = 0;
    std::uint64_t low = 0;
    std::memcpy(&high, uuid.bytes().data(), 8);
    std::memcpy(&low, uuid.bytes().data() + 8, 8);
    return std::hash<std::uint64_t>{}(high ^ (low * 0x9E3779B97F4A7C15ULL));
}
