#include "varnel-sync/Output.hpp"

#include "common/ByteCount.hpp"
#include "common/Localization.hpp"
#include "varnel-sync/Context.hpp"

#include <fmt/format.h>

#include <cmath>
#include <ctime>

namespace varnel::cli {

std::size_t displayWidth(std::string_view text) {
    std::size_t width = 0;
    for (const char c : text) {
        if ((static_cast<unsigned char>(c) & 0xC0) != 0x80) ++width;  // not a continuation byte
    }
    return width;
}

std::string padded(std::string_view text, std::size_t width) {
    std::string result(text);
    const std::size_t current = displayWidth(text);
    if (current < width) result.append(width - current, ' ');
    return result;
}

std::string truncated(std::string_view text, std::size_t width) {
    if (displayWidth(text) <= width) return std::string(text);
    if (width == 0) return {};
    std::string result;
    std::size_t characters = 0;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const bool starts = (static_cast<unsigned char>(text[i]) & 0xC0) != 0x80;
        if (starts && ++characters == width) break;  // room for the ellipsis
        result.push_back(text[i]);
    }
    return result + "…";
}

std::string localDateTime(Date date) {
    const std::time_t seconds = std::chrono::system_clock::to_time_t(date);
    std::tm local{};
    localtime_r(&seconds, &local);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local);
    return text;
}

std::string durationText(double seconds) {
    if (!std::isfinite(seconds) || seconds < 0) seconds = 0;
    if (seconds < 10) return trFormat("{:.1f} s", seconds);
    const auto whole = static_cast<std::int64_t>(std::llround(seconds));
    if (whole < 60) return trFormat("{} s", whole);
    if (whole < 3600) return trFormat("{} min {} s", whole / 60, whole % 60);
    return trFormat("{} h {:02} min", whole / 3600, (whole % 3600) / 60);
}

std::string ageText(std::int64_t seconds) {
    if (seconds < 60) return tr("just now");
    if (seconds < 3600) return trFormat("{} minutes", seconds / 60);
    if (seconds < 86'400) return trFormat("{} hours", seconds / 3600);
    return trFormat("{} days", seconds / 86'400);
}

std::string speedText(double bytesPerSecond) {
    if (!std::isfinite(bytesPerSecond) || bytesPerSecond < 1) return tr("0 B/s");
    return trFormat("{}/s", formatByteCount(static_cast<std::int64_t>(bytesPerSecond)));
}

std::string shellWord(const std::string& text) {
    if (!text.empty() && text.find_first_of(" \t\n'\"\\$`*?[]{}()<>|&;#~!") == std::string::npos) return text;
    std::string quoted = "'";
    for (const char c : text) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return quoted + "'";
}

void writeJSON(std::ostream& out, const nlohmann::ordered_json& document) {
    out << document.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace) << '\n';
}

nlohmann::ordered_json ordered(const nlohmann::json& json) {
    return nlohmann::ordered_json::parse(json.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace));
}

Pager::Pager(Context& context) : direct_(context.out()) {
    if (!context.pagesOutput()) return;
    context.out().flush();
    pipe_ = ::popen("less -FRX", "w");
    if (!pipe_) return;  // no pager: print directly
    buffer_ = std::make_unique<FileBuffer>(pipe_);
    pipeStream_ = std::make_unique<std::ostream>(buffer_.get());
}

Pager::~Pager() {
    if (!pipe_) return;
    pipeStream_->flush();
    ::pclose(pipe_);
}

Pager::FileBuffer::int_type Pager::FileBuffer::overflow(int_type c) {
    if (traits_type::eq_int_type(c, traits_type::eof())) return traits_type::not_eof(c);
    return std::fputc(c, file_) == EOF ? traits_type::eof() : c;
}

std::streamsize Pager::FileBuffer::xsputn(const char* data, std::streamsize count) {
    return static_cast<std::streamsize>(std::fwrite(data, 1, static_cast<std::size_t>(count), file_));
}

int Pager::FileBuffer::sync() {
    return std::fflush(file_) == 0 ? 0 : -1;
}

}  // namespace varnel::cli
