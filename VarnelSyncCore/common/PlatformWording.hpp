#pragma once
// The few sentences that name the platform say it through these words, so the rest of
// each sentence stays the same on every platform.

namespace varnel::platform_wording {

#if defined(__APPLE__)
inline constexpr const char* kThisComputer = "this Mac";
inline constexpr const char* kOperatingSystem = "macOS";
inline constexpr const char* kFullFlushCall = "F_FULLFSYNC";
inline constexpr const char* kClutterName = "macOS";
inline constexpr const char* kFileBrowser = "Finder";
#else
inline constexpr const char* kThisComputer = "this computer";
inline constexpr const char* kOperatingSystem = "Linux";
inline constexpr const char* kFullFlushCall = "fsync";
inline constexpr const char* kClutterName = "macOS";  // the clutter rules are still macOS's own files
inline constexpr const char* kFileBrowser = "your file manager";
#endif

}  // namespace varnel::platform_wording
