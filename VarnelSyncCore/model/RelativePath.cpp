#include "model/RelativePath.hpp"

#include "common/DecodingError.hpp"
#include "common/TextSearch.hpp"
#include "common/Unicode.hpp"
#include "model/PathArena.hpp"

#include <nlohmann/json.hpp>

#include <cstring>
#include <new>
#include <stdexcept>

namespace varnel {

RelativePath::Text* RelativePath::Text::make(std::string_view parent, std::string_view name,
                                             std::string_view canonical, PathArena* arena) {
    const std::size_t size = parent.empty() ? name.size() : parent.size() + 1 + name.size();
    // The top bits of the size are flags, so sizes stay below them.
    if (size >= kInArena || canonical.size() >= kInArena) throw std::length_error("Path too long.");
    static_assert(sizeof(Text) == sizeof(std::uint32_t), "a text in an arena costs its size word alone");
    std::size_t bytes = sizeof(Text) + size;
    if (!canonical.empty()) bytes += sizeof(std::uint32_t) + canonical.size();
    void* memory = arena ? arena->allocate(bytes) : nullptr;
    const bool inArena = memory != nullptr;
    if (!inArena) {
        void* block = std::malloc(sizeof(Count) + bytes);
        if (!block) throw std::bad_alloc();
        new (block) Count(1);
        memory = static_cast<char*>(block) + sizeof(Count);
    }
    Text* text = new (memory) Text;
    text->size_ = static_cast<std::uint32_t>(size) | (canonical.empty() ? 0 : kHasCanonical) | (inArena ? kInArena : 0);
    char* out = reinterpret_cast<char*>(text + 1);
    if (!parent.empty()) {
        std::memcpy(out, parent.data(), parent.size());
        out += parent.size();
        *out++ = '/';
    }
    std::memcpy(out, name.data(), name.size());
    out += name.size();
    if (!canonical.empty()) {
        const auto canonicalSize = static_cast<std::uint32_t>(canonical.size());
        std::memcpy(out, &canonicalSize, sizeof canonicalSize);
        std::memcpy(out + sizeof canonicalSize, canonical.data(), canonical.size());
    }
    return text;
}

void RelativePath::Text::retain() {
    if (inArena()) {
        PathArena::retain(this);
    } else {
        references()->fetch_add(1, std::memory_order_relaxed);
    }
}

void RelativePath::Text::release() {
    if (inArena()) {
        PathArena::release(this);
    } else if (Count* count = references(); count->fetch_sub(1, std::memory_order_acq_rel) == 1) {
        count->~Count();
        std::free(count);
    }
}

std::string_view RelativePath::Text::canonical() const {
    if (!hasCanonical()) return {bytes(), size()};
    std::uint32_t canonicalSize = 0;
    std::memcpy(&canonicalSize, bytes() + size(), sizeof canonicalSize);
    return {bytes() + size() + sizeof canonicalSize, canonicalSize};
}

bool RelativePath::isValidComponent(std::string_view name) {
    if (name.empty() || name == "." || name == "..") return false;
    return name.find('/') == std::string_view::npos && name.find('\0') == std::string_view::npos;
}

std::string RelativePath::canonicalFormOf(std::string_view value) {
    // Names that are not valid UTF-8 compare by their bytes: repairing them would make
    // two different names equal.
    if (unicode::isNFC(value) || !unicode::isValidUTF8(value)) return {};
    return unicode::toNFC(value);
}

std::string RelativePath::canonicalFormOfPath(std::string_view value) {
    if (unicode::isValidUTF8(value)) return canonicalFormOf(value);
    // Built per component, as appending() builds it: a component that is not valid UTF-8
    // keeps its bytes without keeping its neighbours from their canonical form, so a path
    // compares the same however it was made.
    std::string canonical;
    bool changed = false;
    std::size_t start = 0;
    while (true) {
        const std::size_t slash = value.find('/', start);
        const std::string_view piece =
            value.substr(start, slash == std::string_view::npos ? std::string_view::npos : slash - start);
        const std::string pieceCanonical = canonicalFormOf(piece);
        changed = changed || !pieceCanonical.empty();
        canonical += pieceCanonical.empty() ? std::string(piece) : pieceCanonical;
        if (slash == std::string_view::npos) break;
        canonical += '/';
        start = slash + 1;
    }
    return changed ? canonical : std::string();
}

std::optional<RelativePath> RelativePath::fromString(std::string_view value) {
    if (value.empty()) return RelativePath();
    if (value.front() == '/') return std::nullopt;
    if (value.find('\0') != std::string_view::npos) return std::nullopt;
    std::size_t start = 0;
    while (true) {
        const std::size_t slash = value.find('/', start);
        const std::string_view piece =
            value.substr(start, slash == std::string_view::npos ? std::string_view::npos : slash - start);
        if (!isValidComponent(piece)) return std::nullopt;
        if (slash == std::string_view::npos) break;
        start = slash + 1;
    }
    return RelativePath({}, value, canonicalFormOfPath(value));
}

std::optional<RelativePath> RelativePath::fromComponents(const std::vector<std::string>& components) {
    RelativePath path;
    for (const auto& component : components) {
        auto next = path.appending(component);
        if (!next) return std::nullopt;
        path = std::move(*next);
    }
    return path;
}

std::optional<RelativePath> RelativePath::appending(std::string_view name, PathArena* arena) const {
    if (!isValidComponent(name)) return std::nullopt;
    // "/" never combines with a neighbour, so the canonical form can be built per part.
    std::string canonical;
    std::string nameCanonical = canonicalFormOf(name);
    if ((text_ && text_->hasCanonical()) || !nameCanonical.empty()) {
        if (!isRoot()) {
            canonical += canonicalValue();
            canonical += '/';
        }
        canonical += nameCanonical.empty() ? std::string(name) : nameCanonical;
    }
    return RelativePath(value(), name, canonical, arena);
}

RelativePath RelativePath::parent() const {
    const std::string_view value = this->value();
    const std::size_t slash = lastIndexOf(value, '/');
    if (slash == std::string_view::npos) return RelativePath();
    return *fromString(value.substr(0, slash));
}

std::string_view RelativePath::lastComponent() const { return lastComponentOf(value()); }

std::vector<std::string_view> RelativePath::components() const {
    std::vector<std::string_view> result;
    if (isRoot()) return result;
    std::string_view rest = value();
    while (true) {
        const std::size_t slash = rest.find('/');
        result.push_back(rest.substr(0, slash));
        if (slash == std::string_view::npos) break;
        rest.remove_prefix(slash + 1);
    }
    return result;
}

bool RelativePath::isAncestorOf(const RelativePath& other) const {
    const std::string_view mine = canonicalValue();
    const std::string_view theirs = other.canonicalValue();
    if (isRoot()) return !other.isRoot();
    return theirs.size() > mine.size() && theirs.substr(0, mine.size()) == mine && theirs[mine.size()] == '/';
}

void to_json(nlohmann::json& json, const RelativePath& path) {
    json = path.value();
}

void from_json(const nlohmann::json& json, RelativePath& path) {
    if (!json.is_string()) throw DecodingError("Invalid relative path: " + json.dump());
    const auto& text = json.get_ref<const std::string&>();
    auto parsed = RelativePath::fromString(text);
    if (!parsed) throw DecodingError("Invalid relative path: " + text);
    path = std::move(*parsed);
}

}  // namespace varnel
