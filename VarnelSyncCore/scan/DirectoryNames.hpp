#pragma once

#include "common/IndexedIterator.hpp"

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

namespace varnel {

// The names listed in one folder, kept end to end in one buffer. A scan lists every
// folder once and most names are longer than a short string holds, so a string per name
// would cost an allocation per item.
class DirectoryNames {
public:
    DirectoryNames() = default;
    DirectoryNames(std::initializer_list<std::string_view> names) {
        for (std::string_view name : names) add(name);
    }

    void add(std::string_view name) {
        text_.append(name);
        ends_.push_back(text_.size());
    }

    // Room for `moreBytes` more bytes of names and `moreNames` more names.
    void reserve(std::size_t moreBytes, std::size_t moreNames) {
        text_.reserve(text_.size() + moreBytes);
        ends_.reserve(ends_.size() + moreNames);
    }

    std::size_t size() const { return ends_.size(); }
    bool empty() const { return ends_.empty(); }
    std::string_view operator[](std::size_t index) const {
        const std::size_t start = index == 0 ? 0 : ends_[index - 1];
        return std::string_view(text_).substr(start, ends_[index] - start);
    }
    IndexedIterator<DirectoryNames> begin() const { return {this, 0}; }
    IndexedIterator<DirectoryNames> end() const { return {this, size()}; }

    friend bool operator==(const DirectoryNames& a, const DirectoryNames& b) {
        return a.text_ == b.text_ && a.ends_ == b.ends_;
    }

private:
    std::string text_;
    std::vector<std::size_t> ends_;  // where each name stops in text_
};

}  // namespace varnel
