#pragma once
// Small helpers for what the tool prints: column padding by characters, dates and
// durations for people, JSON documents, and the pager for long listings.

#include "common/Date.hpp"

#include <nlohmann/json.hpp>

#include <cstdint>
#include <cstdio>
#include <memory>
#include <ostream>
#include <streambuf>
#include <string>
#include <string_view>

namespace varnel::cli {

class Context;

// Characters (Unicode scalar values) in UTF-8 text: what a terminal column count is
// for the names this tool prints.
std::size_t displayWidth(std::string_view text);
// The text followed by spaces up to `width` characters (never cut).
std::string padded(std::string_view text, std::size_t width);
// The text cut to at most `width` characters, ending in "…" when cut.
std::string truncated(std::string_view text, std::size_t width);

// "2025-03-07 14:15:02" in the machine's time zone.
std::string localDateTime(Date date);
// "0.4 s", "42 s", "3 min 20 s", "2 h 05 min".
std::string durationText(double seconds);
// "just now", "12 minutes", "5 hours", "3 days".
std::string ageText(std::int64_t seconds);
// "1.5 MB/s".
std::string speedText(double bytesPerSecond);

// The text as one word for a shell command shown to the user: quoted only when needed.
std::string shellWord(const std::string& text);

// One JSON document on its own, pretty-printed, ending in a newline.
void writeJSON(std::ostream& out, const nlohmann::ordered_json& document);
// An ordinary (sorted) nlohmann document re-read with its key order kept.
nlohmann::ordered_json ordered(const nlohmann::json& json);

// Where a long listing goes: through `less -FRX` when the context pages its output
// (stdout is a terminal), else straight to stdout. The pager is waited for on
// destruction, so the prompt returns only after the user has left it.
class Pager {
public:
    explicit Pager(Context& context);
    ~Pager();
    Pager(const Pager&) = delete;
    Pager& operator=(const Pager&) = delete;

    std::ostream& stream() { return pipe_ ? *pipeStream_ : direct_; }

private:
    // Writes through a C stream, so a pager that quits early (EPIPE) turns the stream
    // bad instead of ending the process.
    class FileBuffer : public std::streambuf {
    public:
        explicit FileBuffer(FILE* file) : file_(file) {}

    protected:
        int_type overflow(int_type c) override;
        std::streamsize xsputn(const char* data, std::streamsize count) override;
        int sync() override;

    private:
        FILE* file_;
    };

    std::ostream& direct_;
    FILE* pipe_ = nullptr;
    std::unique_ptr<FileBuffer> buffer_;
    std::unique_ptr<std::ostream> pipeStream_;
};

}  // namespace varnel::cli
