#pragma once
// Every user-visible sentence goes through tr() so it can be translated with gettext.
// Sentences use fmt placeholders ("{}") where the English text inserts a value.

#include <fmt/format.h>

#include <string>
#include <utility>

namespace varnel {

// The gettext text domain of the engine and the command-line tool.
inline constexpr const char* kTextDomain = "varnel-sync";

// Returns the translation of an English sentence, or the sentence itself.
const char* tr(const char* english);

// Translates a sentence with fmt placeholders and fills them in order.
template <typename... Args>
std::string trFormat(const char* english, Args&&... args) {
    return fmt::format(fmt::runtime(tr(english)), std::forward<Args>(args)...);
}

}  // namespace varnel
