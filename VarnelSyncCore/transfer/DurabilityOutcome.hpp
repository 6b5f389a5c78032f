#pragma once

#include "model/SyncOptions.hpp"

#include <nlohmann/json_fwd.hpp>

#include <optional>
#include <string>
#include <string_view>

namespace varnel {

// What happened to one committed file as far as durability goes.
enum class DurabilityOutcome {
    fastNoFlush,                   // committed without any flush (Fast mode)
    durablyCommitted,              // file and folder entry flushed as the mode asks
    uncertainDirectoryNotFlushed,  // committed, but the folder entry could not be flushed
    durableFullFlushUnsupported,   // flushed, but the full flush was refused and a weaker one used
};

std::string_view toString(DurabilityOutcome outcome);  // raw value: the case name
std::optional<DurabilityOutcome> parseDurabilityOutcome(std::string_view raw);
// "Written (Fast mode)", "Durably committed", ... (translated).
std::string label(DurabilityOutcome outcome);

// The outcome of a file whose own flush succeeded and which was then committed:
// Fast mode flushes nothing; a failed folder flush after the rename makes it uncertain;
// a fallback from the full flush (of the file or of its folder) is reported as such.
DurabilityOutcome chooseDurabilityOutcome(DurabilityMode mode, bool folderFlushFailed, bool fellBackFromFullFlush);

// Stored by raw value; an unknown raw value throws DecodingError.
void to_json(nlohmann::json& json, DurabilityOutcome outcome);
void from_json(const nlohmann::json& json, DurabilityOutcome& outcome);

}  // namespace varnel
