// logs list and logs show: the JSON Lines logs and text reports runs leave behind.

#include "common/ByteCount.hpp"
#include "common/Localization.hpp"
#include "logs/LogRecord.hpp"
#include "varnel-sync/Commands.hpp"
#include "varnel-sync/Output.hpp"

#include <algorithm>
#include <filesystem>
#include <fstream>

namespace varnel::cli {

namespace {

namespace fs = std::filesystem;

constexpr std::string_view kLogPrefix = "run-";
constexpr std::string_view kLogExtension = ".jsonl";

struct RunEntry {
    Uuid id;
    fs::path logFile;
    std::optional<LogRecord> start;   // the first record, "run.start"
    std::optional<LogRecord> finish;  // the last record, when it closes the run
    bool damaged = false;
};

std::optional<LogValue> valueOf(const std::optional<LogRecord>& record, std::string_view key) {
    if (!record) return std::nullopt;
    for (const auto& [name, value] : record->payload) {
        if (name == key) return value;
    }
    return std::nullopt;
}

std::string textOf(const std::optional<LogRecord>& record, std::string_view key) {
    const auto value = valueOf(record, key);
    if (const auto* text = value ? std::get_if<std::string>(&*value) : nullptr) return *text;
    return {};
}

std::int64_t integerOf(const std::optional<LogRecord>& record, std::string_view key) {
    const auto value = valueOf(record, key);
    if (const auto* number = value ? std::get_if<std::int64_t>(&*value) : nullptr) return *number;
    return 0;
}

std::optional<Uuid> runIDOfFileName(const std::string& name) {
    if (!name.starts_with(kLogPrefix) || !name.ends_with(kLogExtension)) return std::nullopt;
    return Uuid::parse(std::string_view(name).substr(kLogPrefix.size(),
                                                     name.size() - kLogPrefix.size() - kLogExtension.size()));
}

// The first and last records of a log; a log that cannot be read is marked damaged.
RunEntry readEntry(const Uuid& id, const fs::path& file) {
    RunEntry entry{id, file, std::nullopt, std::nullopt, false};
    std::ifstream in(file);
    std::string line;
    std::string last;
    bool first = true;
    try {
        while (std::getline(in, line)) {
            if (line.empty()) continue;
            if (first) {
                entry.start = decodeLine(line);
                first = false;
            } else {
                last = std::move(line);
            }
        }
        if (!last.empty()) {
            LogRecord record = decodeLine(last);
            if (record.kind != "run.start" && record.kind.starts_with("run.")) entry.finish = std::move(record);
        }
    } catch (const std::exception&) {
        entry.damaged = true;
    }
    if (!in.eof() || first) entry.damaged = true;
    return entry;
}

std::vector<RunEntry> listRuns(const fs::path& directory) {
    std::vector<RunEntry> runs;
    std::error_code error;
    if (!fs::is_directory(directory, error)) return runs;
    for (const auto& item : fs::directory_iterator(directory, error)) {
        if (const auto id = runIDOfFileName(item.path().filename().string())) {
            runs.push_back(readEntry(*id, item.path()));
        }
    }
    // Newest first, by the run's own start time (the ISO 8601 text sorts as its date).
    std::sort(runs.begin(), runs.end(), [](const RunEntry& a, const RunEntry& b) {
        return textOf(a.start, "startedAt") > textOf(b.start, "startedAt");
    });
    return runs;
}

std::string startedText(const RunEntry& run) {
    if (const auto date = parseISO8601(textOf(run.start, "startedAt"))) return localDateTime(*date);
    return "—";
}

std::string outcomeText(const RunEntry& run) {
    if (run.damaged && !run.finish) return tr("unreadable log");
    if (const auto outcome = parseSyncRunOutcome(textOf(run.finish, "outcome"))) return displayName(*outcome);
    return tr("unfinished");
}

fs::path reportFileOf(const RunEntry& run) {
    fs::path report = run.logFile;
    return report.replace_extension(".txt");
}

// The run whose id is RUN-ID, or starts with it.
RunEntry findRun(const fs::path& directory, const std::string& given) {
    if (const auto id = Uuid::parse(given)) {
        const fs::path file = directory / (std::string(kLogPrefix) + id->string() + std::string(kLogExtension));
        std::error_code error;
        if (fs::exists(file, error)) return RunEntry{*id, file, std::nullopt, std::nullopt, false};
    }
    std::string prefix = given;
    std::transform(prefix.begin(), prefix.end(), prefix.begin(), [](unsigned char c) { return std::toupper(c); });
    std::vector<RunEntry> matches;
    if (!prefix.empty()) {
        for (auto& run : listRuns(directory)) {
            if (run.id.string().starts_with(prefix)) matches.push_back(std::move(run));
        }
    }
    if (matches.size() > 1) {
        throw UsageError(trFormat("“{}” matches {} runs. Give more of the run's id.", given, matches.size()));
    }
    if (matches.empty()) {
        throw UsageError(trFormat("No run log has the id “{}”. “varnel-sync logs list” shows the runs.", given));
    }
    return std::move(matches.front());
}

std::string valueText(const LogValue& value) {
    return std::visit(
        [](const auto& v) -> std::string {
            using T = std::decay_t<decltype(v)>;
            if constexpr (std::is_same_v<T, std::string>) {
                if (!v.empty() && v.find_first_of(" \t\n\"=,") == std::string::npos) return v;
                return nlohmann::json(v).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
            } else if constexpr (std::is_same_v<T, bool>) {
                return v ? "true" : "false";
            } else {
                return nlohmann::json(v).dump();
            }
        },
        value);
}

// --- list ----------------------------------------------------------------------------

ExitCode listCommand(Context& context) {
    const fs::path directory = context.application().logStore().directory();
    const auto runs = listRuns(directory);
    if (context.json()) {
        nlohmann::ordered_json list = nlohmann::ordered_json::array();
        for (const auto& run : runs) {
            nlohmann::ordered_json item{{"runID", run.id.string()},
                                        {"profileID", textOf(run.start, "profileId")},
                                        {"profileName", textOf(run.start, "profileName")},
                                        {"startedAt", textOf(run.start, "startedAt")}};
            if (run.finish) {
                item["finishedAt"] = textOf(run.finish, "finishedAt");
                item["outcome"] = textOf(run.finish, "outcome");
                for (const char* key : {"filesCopied", "filesUpdated", "filesFailed", "itemsArchived", "bytesTransferred"}) {
                    item[key] = integerOf(run.finish, key);
                }
            }
            item["damaged"] = run.damaged;
            item["logFile"] = run.logFile.string();
            item["reportFile"] = reportFileOf(run).string();
            list.push_back(std::move(item));
        }
        writeJSON(context.out(), {{"logsFolder", directory.string()}, {"runs", list}});
        return ExitCode::ok;
    }
    std::ostream& out = context.out();
    if (runs.empty()) {
        if (!context.quiet()) out << trFormat("No run logs in {}.", directory.string()) << '\n';
        return ExitCode::ok;
    }
    std::vector<std::array<std::string, 6>> rows;
    rows.push_back({tr("Run ID"), tr("Started"), tr("Profile"), tr("Result"), tr("Files"), tr("Written")});
    for (const auto& run : runs) {
        const bool finished = run.finish.has_value();
        rows.push_back({run.id.string(), startedText(run), textOf(run.start, "profileName"), outcomeText(run),
                        finished ? std::to_string(integerOf(run.finish, "filesCopied") +
                                                  integerOf(run.finish, "filesUpdated"))
                                 : "—",
                        finished ? formatByteCount(integerOf(run.finish, "bytesTransferred")) : "—"});
    }
    std::array<std::size_t, 5> widths{};
    for (const auto& row : rows) {
        for (std::size_t i = 0; i < widths.size(); ++i) widths[i] = std::max(widths[i], displayWidth(row[i]));
    }
    Pager pager(context);
    for (const auto& row : rows) {
        for (std::size_t i = 0; i < widths.size(); ++i) pager.stream() << padded(row[i], widths[i] + 2);
        pager.stream() << row[5] << '\n';
    }
    return ExitCode::ok;
}

// --- show ----------------------------------------------------------------------------

struct ShowArguments {
    std::string run;
    bool report = false;
};

ExitCode showCommand(Context& context, const ShowArguments& arguments) {
    const fs::path directory = context.application().logStore().directory();
    const RunEntry run = findRun(directory, arguments.run);
    const fs::path file = arguments.report ? reportFileOf(run) : run.logFile;
    std::ifstream in(file);
    if (!in) {
        throw CommandFailure(ExitCode::runFailed,
                             trFormat("The {} of run {} could not be read at {}.",
                                      arguments.report ? tr("report") : tr("log"), run.id.string(), file.string()));
    }

    if (arguments.report) {
        if (context.json()) {
            const std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
            writeJSON(context.out(), {{"runID", run.id.string()}, {"reportFile", file.string()}, {"report", text}});
        } else {
            Pager pager(context);
            pager.stream() << in.rdbuf();
        }
        return ExitCode::ok;
    }

    // The log is read and written one line at a time, so a long run's log streams.
    std::string line;
    std::size_t number = 0;
    if (context.json()) {
        std::ostream& out = context.out();
        out << "{\n  \"runID\": \"" << run.id.string() << "\",\n  \"logFile\": "
            << nlohmann::json(file.string()).dump() << ",\n  \"records\": [";
        bool first = true;
        while (std::getline(in, line)) {
            ++number;
            if (line.empty()) continue;
            std::string record;
            try {
                record = nlohmann::ordered_json::parse(line).dump(-1, ' ', false,
                                                                  nlohmann::ordered_json::error_handler_t::replace);
            } catch (const std::exception&) {
                context.err() << "varnel-sync: " << trFormat("Line {} of {} is damaged and was left out.", number,
                                                             file.string())
                              << '\n';
                continue;
            }
            out << (first ? "\n    " : ",\n    ") << record;
            first = false;
        }
        out << (first ? "]\n}\n" : "\n  ]\n}\n");
        return ExitCode::ok;
    }
    Pager pager(context);
    std::ostream& out = pager.stream();
    while (std::getline(in, line) && out) {
        ++number;
        if (line.empty()) continue;
        try {
            const LogRecord record = decodeLine(line);
            out << record.timestamp << "  " << record.kind;
            const char* separator = "  ";
            for (const auto& [key, value] : record.payload) {
                out << separator << key << '=' << valueText(value);
                separator = " ";
            }
            out << '\n';
        } catch (const std::exception& error) {
            out << trFormat("(line {} is damaged: {})", number, error.what()) << '\n';
        }
    }
    return ExitCode::ok;
}

}  // namespace

void addLogCommands(CLI::App& app, Dispatch& dispatch) {
    CLI::App* logs = app.add_subcommand("logs", tr("List the run logs and show one of them."));
    logs->require_subcommand(1);

    CLI::App* list = logs->add_subcommand("list", tr("Every kept run, newest first."));
    list->callback([&dispatch] { dispatch.action = [](Context& context) { return listCommand(context); }; });

    auto arguments = std::make_shared<ShowArguments>();
    CLI::App* show = logs->add_subcommand("show", tr("Show a run's log, or with --report its text report."));
    show->add_option("RUN-ID", arguments->run, tr("the run's id, or enough of its beginning to tell it apart"))
        ->required();
    show->add_flag("--report", arguments->report, tr("show the plain-text report instead of the log records"));
    show->callback([&dispatch, arguments] {
        dispatch.action = [arguments](Context& context) { return showCommand(context, *arguments); };
    });
}

}  // namespace varnel::cli
