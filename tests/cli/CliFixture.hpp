#pragma once

#include "support/TemporaryDirectory.hpp"
#include "varnel-sync/CommandLine.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <filesystem>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace varnel::testing {

// The real time, moved by an offset the test sets.
class ShiftedClock final : public Clock {
public:
    Date now() const override { return std::chrono::system_clock::now() + offset; }
    std::chrono::seconds offset{0};
};

// Runs the tool in-process in the isolated mode, with TMPDIR and HOME inside a fresh
// temporary folder, and keeps what it printed.
class CliTest : public ::testing::Test {
protected:
    struct Result {
        int code = 0;
        std::string out;
        std::string err;
        nlohmann::json json() const { return nlohmann::json::parse(out); }
    };

    CliTest() {
        std::filesystem::create_directories(temp.path() / "tmp");
        std::filesystem::create_directories(temp.path() / "home");
        std::filesystem::create_directories(source());
        std::filesystem::create_directories(destination());
    }

    std::filesystem::path source() const { return temp.path() / "source"; }
    std::filesystem::path destination() const { return temp.path() / "destination"; }

    Result run(std::vector<std::string> arguments, const std::string& input = {}, bool terminal = false) {
        arguments.insert(arguments.begin(), "--isolated");
        std::istringstream in(input);
        std::ostringstream out;
        std::ostringstream err;
        cli::Io io{in, out, err};
        io.terminal.stdinIsTerminal = terminal;
        io.environment = [this](const std::string& name) -> std::optional<std::string> {
            if (name == "TMPDIR") return (temp.path() / "tmp").string();
            if (name == "HOME") return (temp.path() / "home").string();
            return std::nullopt;
        };
        io.clock = &clock;
        Result result;
        result.code = cli::run(arguments, io);
        result.out = out.str();
        result.err = err.str();
        return result;
    }

    // The names of everything below a folder, relative to it.
    static std::set<std::string> tree(const std::filesystem::path& folder) {
        std::set<std::string> names;
        for (const auto& entry : std::filesystem::recursive_directory_iterator(folder)) {
            names.insert(std::filesystem::relative(entry.path(), folder).string());
        }
        return names;
    }

    // A Mirror profile "Photos" over a source with photos and a destination whose
    // destination-only files make Mirror archive most of it (a severe concern).
    std::string addMirrorProfile() {
        temp.writeFile("source/Photos/a.jpg", std::string(2000, 'a'));
        temp.writeFile("source/Photos/b.jpg", "bb");
        temp.writeFile("source/same.txt", "same");
        temp.writeFile("source/node_modules/dep.js", "x");
        temp.writeFile("destination/old/stale.txt", "stale");
        temp.writeFile("destination/extra.txt", "extra");
        std::filesystem::copy_file(source() / "same.txt", destination() / "same.txt");
        std::filesystem::last_write_time(destination() / "same.txt",
                                         std::filesystem::last_write_time(source() / "same.txt"));
        const auto added = run({"profile", "add", "Photos", "--source", source().string(), "--destination",
                                destination().string(), "--mode", "mirror", "--exclude", "folder:node_modules"});
        EXPECT_EQ(added.code, 0) << added.err;
        return added.out.substr(0, added.out.find('\n'));
    }

    TemporaryDirectory temp;
    ShiftedClock clock;
};

}  // namespace varnel::testing
