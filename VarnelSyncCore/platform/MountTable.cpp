#include "platform/MountTable.hpp"

#include <charconv>
#include <fstream>
#include <sstream>

namespace varnel {

namespace {

// mountinfo writes space, tab, newline and backslash in names as \ooo octal escapes.
std::string unescape(std::string_view field) {
    std::string out;
    out.reserve(field.size());
    for (std::size_t i = 0; i < field.size(); ++i) {
        if (field[i] == '\\' && i + 3 < field.size()) {
            const std::string_view digits = field.substr(i + 1, 3);
            if (digits.find_first_not_of("01234567") == std::string_view::npos) {
                out += static_cast<char>(((digits[0] - '0') << 6) | ((digits[1] - '0') << 3) | (digits[2] - '0'));
                i += 3;
                continue;
            }
        }
        out += field[i];
    }
    return out;
}

std::vector<std::string_view> splitFields(std::string_view line) {
    std::vector<std::string_view> fields;
    std::size_t start = 0;
    while (start < line.size()) {
        const std::size_t space = line.find(' ', start);
        const std::size_t end = space == std::string_view::npos ? line.size() : space;
        if (end > start) fields.push_back(line.substr(start, end - start));
        start = end + 1;
    }
    return fields;
}

template <typename Number>
bool parseNumber(std::string_view text, Number& value) {
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    return error == std::errc() && end == text.data() + text.size();
}

// "36 35 98:0 /mnt1 /mnt2 rw,noatime master:1 - ext3 /dev/root rw,errors=continue"
std::optional<MountEntry> parseLine(std::string_view line) {
    const auto fields = splitFields(line);
    // Six fixed fields, any number of optional ones, "-", then type, source, options.
    std::size_t separator = 6;
    while (separator < fields.size() && fields[separator] != "-") ++separator;
    if (separator + 2 >= fields.size()) return std::nullopt;

    MountEntry entry;
    const std::string_view device = fields[2];
    const std::size_t colon = device.find(':');
    if (colon == std::string_view::npos || !parseNumber(fields[0], entry.mountID) ||
        !parseNumber(fields[1], entry.parentID) || !parseNumber(device.substr(0, colon), entry.deviceMajor) ||
        !parseNumber(device.substr(colon + 1), entry.deviceMinor)) {
        return std::nullopt;
    }
    entry.root = unescape(fields[3]);
    entry.mountPoint = unescape(fields[4]);
    entry.fileSystemType = unescape(fields[separator + 1]);
    entry.source = unescape(fields[separator + 2]);
    return entry;
}

}  // namespace

bool mountPointContains(std::string_view mountPoint, std::string_view path) {
    if (mountPoint == "/") return !path.empty() && path.front() == '/';
    if (path.substr(0, mountPoint.size()) != mountPoint) return false;
    return path.size() == mountPoint.size() || path[mountPoint.size()] == '/';
}

MountTable MountTable::current() {
    std::ifstream in("/proc/self/mountinfo");
    std::ostringstream text;
    text << in.rdbuf();
    return parse(text.str());
}

MountTable MountTable::parse(std::string_view text) {
    MountTable table;
    std::size_t start = 0;
    while (start < text.size()) {
        const std::size_t newline = text.find('\n', start);
        const std::size_t end = newline == std::string_view::npos ? text.size() : newline;
        if (auto entry = parseLine(text.substr(start, end - start))) table.entries_.push_back(std::move(*entry));
        start = end + 1;
    }
    return table;
}

const MountEntry* MountTable::findByMountID(std::uint64_t mountID) const {
    for (const auto& entry : entries_) {
        if (entry.mountID == mountID) return &entry;
    }
    return nullptr;
}

const MountEntry* MountTable::findContaining(std::string_view canonicalPath, unsigned deviceMajor,
                                             unsigned deviceMinor) const {
    const MountEntry* best = nullptr;
    bool bestMatchesDevice = false;
    for (const auto& entry : entries_) {
        if (!mountPointContains(entry.mountPoint, canonicalPath)) continue;
        const bool matchesDevice = entry.deviceMajor == deviceMajor && entry.deviceMinor == deviceMinor;
        // A device match beats any other; then the longer mount point; then the later
        // entry (">=" so a mount stacked on top wins).
        const bool better = best == nullptr || (matchesDevice && !bestMatchesDevice) ||
                            (matchesDevice == bestMatchesDevice && entry.mountPoint.size() >= best->mountPoint.size());
        if (better) {
            best = &entry;
            bestMatchesDevice = matchesDevice;
        }
    }
    return best;
}

}  // namespace varnel
