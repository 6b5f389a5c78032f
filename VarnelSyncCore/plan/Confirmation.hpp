#pragma once

#include <optional>
#include <set>
#include <string>

namespace varnel {

// What the user gave on the review sheet before a run: the concerns ticked and the word
// typed, if any.
struct Confirmation {
    std::set<std::string> acknowledgedConcernIDs;
    std::optional<std::string> typedPhrase;

    friend bool operator==(const Confirmation&, const Confirmation&) = default;
};

}  // namespace varnel
