#pragma once

#include "common/Date.hpp"
#include "model/ProfileStoring.hpp"

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

namespace varnel {

// The stored document: {"version": 1, "profiles": [...]}, in the user's order.
struct ProfileDocument {
    static constexpr int currentVersion = 1;

    int version = currentVersion;
    std::vector<SyncProfile> profiles;

    friend bool operator==(const ProfileDocument&, const ProfileDocument&) = default;
};

// UTF-8 JSON, pretty-printed, keys sorted, so the file reads and diffs well.
std::string encodeProfileDocument(const ProfileDocument& document);
// Throws DecodingError for malformed JSON, a missing or unknown version, or any profile
// that fails to decode: a partial list would lose the rest at the next save.
ProfileDocument decodeProfileDocument(std::string_view text, const Clock& clock);

// The whole profile list in one JSON file. Keeps no mutable state: each save is one
// atomic file replacement, each load one read.
class JSONProfileStore final : public ProfileStoring {
public:
    // `clock` dates profiles saved without timestamps and names moved-aside files.
    explicit JSONProfileStore(std::filesystem::path fileURL, const Clock& clock = SystemClock::shared());

    const std::filesystem::path& fileURL() const { return fileURL_; }

    // No file: an empty list, and nothing is created. An unreadable or undecodable file
    // is moved aside ("profiles.corrupt-<seconds>.json") so no later save overwrites it,
    // and the failure names the new file.
    std::vector<SyncProfile> load() override;
    void save(const std::vector<SyncProfile>& profiles) override;

private:
    std::filesystem::path fileURL_;
    const Clock& clock_;
};

}  // namespace varnel
