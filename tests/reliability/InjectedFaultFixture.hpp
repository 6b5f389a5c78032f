#pragma once
// A Mirror profile whose destination holds generation 0 of a GenerationTree and whose
// source now holds generation 1, run by the whole engine in this process with faults
// injected around the real file system and flusher. Shared by the disk-full and I/O
// error recipes.

#include "support/EngineHarness.hpp"
#include "support/GenerationTree.hpp"
#include "support/SyncChecker.hpp"
#include "support/TemporaryDirectory.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>

namespace varnel::testing {

class InjectedFaultFixture : public ::testing::Test {
protected:
    using Kind = GenerationTree::Kind;

    // Each call starts a new round: new folders and a new profile, so one test may try
    // several fault positions or modes.
    void prepare(DurabilityMode durability, VerificationMode verification = VerificationMode::none) {
        namespace fs = std::filesystem;
        ++round_;
        tree.write(source(), 0);
        fs::create_directories(destination());
        temporary.writeFile(round() + "/outside/sentinel.txt", "outside the destination");
        profileID = engine.addProfile(source(), destination(), SyncMode::mirror, durability, verification);
        const auto first = engine.sync(profileID).result;
        ASSERT_EQ(first.outcome, SyncRunOutcome::success);
        fs::remove_all(source());
        tree.write(source(), 1);
        checker = std::make_unique<SyncChecker>(tree, source(), destination(), temporary / round() / "outside");
    }

    std::string round() const { return "round" + std::to_string(round_); }
    std::filesystem::path source() const { return temporary / round() / "src"; }
    std::filesystem::path destination() const { return temporary / round() / "dst"; }

    // The files and links of generation 1 that the destination does not hold as
    // generation 1 (relative paths).
    std::vector<std::string> notYetGenerationOne() const {
        std::vector<std::string> paths;
        for (const auto& [path, item] : tree.generation(1)) {
            if (item.kind == Kind::folder) continue;
            const auto at = destination() / path;
            const bool same = item.kind == Kind::file
                                  ? readTextFileIfRegular(at) == std::optional(tree.expectedContents(path, 1))
                                  : std::filesystem::is_symlink(std::filesystem::symlink_status(at)) &&
                                        std::filesystem::read_symlink(at).string() == item.target;
            if (!same) paths.push_back(path);
        }
        return paths;
    }

    // A run in which exactly one item failed with `code` and the system's text for
    // `errnoValue`: it is reported, the run completed with warnings, no staging file is
    // left, that item kept its old state (generation 0, or nothing for a new item), every
    // other item is generation 1 and the checker passes. Returns the failed path.
    std::string expectOnlyOneItemFailed(const SyncRunResult& result, const std::string& code, int errnoValue) {
        EXPECT_EQ(result.outcome, SyncRunOutcome::completedWithWarnings);
        EXPECT_EQ(result.filesFailed, 1);
        if (result.errors.size() != 1 || !result.errors.front().relativePath) {
            std::string errors;
            for (const auto& error : result.errors) errors += "\n  " + error.code + ": " + error.message;
            ADD_FAILURE() << "expected one error about an item, got " << result.errors.size() << errors;
            return "";
        }
        const RecordedError& error = result.errors.front();
        EXPECT_EQ(error.code, code) << error.message;
        EXPECT_THAT(error.message, ::testing::HasSubstr(std::strerror(errnoValue)));
        const std::string failed(error.relativePath->value());
        EXPECT_EQ(notYetGenerationOne(), std::vector<std::string>{failed});
        if (const auto old = tree.item(failed, 0); old && old->kind == Kind::file) {
            EXPECT_EQ(readTextFileIfRegular(destination() / failed), tree.expectedContents(failed, 0)) << failed;
        }
        EXPECT_EQ(checker->check(SyncChecker::Moment::interrupted), std::vector<std::string>{});
        EXPECT_EQ(checker->leftovers(), std::vector<std::string>{});
        return failed;
    }

    // One more run without faults brings the destination to generation 1 exactly.
    void expectRerunCompletes() {
        const auto result = engine.sync(profileID).result;
        EXPECT_EQ(result.outcome, SyncRunOutcome::success);
        EXPECT_EQ(checker->check(SyncChecker::Moment::complete), std::vector<std::string>{});
    }

    static std::optional<std::string> readTextFileIfRegular(const std::filesystem::path& path) {
        std::error_code error;
        if (!std::filesystem::is_regular_file(std::filesystem::symlink_status(path, error))) return std::nullopt;
        std::ifstream file(path, std::ios::binary);
        return std::string((std::istreambuf_iterator<char>(file)), {});
    }

    GenerationTree tree;
    TemporaryDirectory temporary;
    EngineHarness engine{temporary / "app"};
    Uuid profileID;
    std::unique_ptr<SyncChecker> checker;

private:
    int round_ = 0;
};

}  // namespace varnel::testing
