#pragma once

#include <optional>
#include <string>
#include <utility>
#include <variant>

namespace varnel {

// How a volume found now compares with the one a profile recorded: it cannot be told
// (the volume publishes too little), it is another volume, or it is the same one. Each
// of the first two carries the sentence that explains it to the user.
class MatchResult {
public:
    struct Unverifiable {
        std::string reason;
        friend bool operator==(const Unverifiable&, const Unverifiable&) = default;
    };
    struct Mismatch {
        std::string reason;
        friend bool operator==(const Mismatch&, const Mismatch&) = default;
    };
    struct Identical {
        friend bool operator==(const Identical&, const Identical&) = default;
    };
    using Case = std::variant<Unverifiable, Mismatch, Identical>;

    MatchResult(Unverifiable value) : case_(std::move(value)) {}  // NOLINT: implicit by design
    MatchResult(Mismatch value) : case_(std::move(value)) {}      // NOLINT
    MatchResult(Identical value) : case_(value) {}                // NOLINT

    static MatchResult unverifiable(std::string reason) { return Unverifiable{std::move(reason)}; }
    static MatchResult mismatch(std::string reason) { return Mismatch{std::move(reason)}; }
    static MatchResult identical() { return Identical{}; }

    const Case& value() const { return case_; }
    bool isUnverifiable() const { return std::holds_alternative<Unverifiable>(case_); }
    bool isMismatch() const { return std::holds_alternative<Mismatch>(case_); }
    bool isIdentical() const { return std::holds_alternative<Identical>(case_); }

    // The explaining sentence; none for identical.
    std::optional<std::string> reason() const {
        if (const auto* found = std::get_if<Unverifiable>(&case_)) return found->reason;
        if (const auto* found = std::get_if<Mismatch>(&case_)) return found->reason;
        return std::nullopt;
    }

    friend bool operator==(const MatchResult&, const MatchResult&) = default;

private:
    Case case_;
};

}  // namespace varnel
