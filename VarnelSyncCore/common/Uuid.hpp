#pragma once

#include <nlohmann/json_fwd.hpp>

#include <array>
#include <compare>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace varnel {

// A 128-bit identifier, written in its canonical upper-case 8-4-4-4-12 form.
class Uuid {
public:
    Uuid() = default;  // the nil UUID
    explicit Uuid(const std::array<std::uint8_t, 16>& bytes) : bytes_(bytes) {}

    static Uuid random();
    // Accepts the 8-4-4-4-12 hexadecimal form in either case; nothing else.
    static std::optional<Uuid> parse(std::string_view text);

    std::string string() const;  // upper case, as stored in files
    const std::array<std::uint8_t, 16>& bytes() const { return bytes_; }
    bool isNil() const;

    friend auto operator<=>(const Uuid&, const Uuid&) = default;
    friend bool operator==(const Uuid&, const Uuid&) = default;

private:
    std::array<std::uint8_t, 16> bytes_{};
};

void to_json(nlohmann::json& json, const Uuid& uuid);
void from_json(const nlohmann::json& json, Uuid& uuid);

}  // namespace varnel

template <>
struct std::hash<varnel::Uuid> {
    std::size_t operator()(const varnel::Uuid& uuid) const noexcept;
};
