#pragma once
// A copy engine on real temporary folders, with fault injection around the file
// system and the flusher, shared by the engine's tests.

#include "scan/RealFileSystem.hpp"
#include "support/FaultInjectingFileSystem.hpp"
#include "support/FaultInjectingFlusher.hpp"
#include "support/Shorthand.hpp"
#include "support/SyncChecker.hpp"
#include "support/TemporaryDirectory.hpp"
#include "transfer/FileCopyEngine.hpp"
#include "transfer/PartialFileNaming.hpp"
#include "transfer/POSIXFileFlusher.hpp"
#include "transfer/SyncError.hpp"

#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

namespace varnel::testing {

inline constexpr auto syncErrorOf = thrownBy<SyncError>;

class CopyEngineFixture : public ::testing::Test {
protected:
    void SetUp() override {
        std::filesystem::create_directories(temporary / "src");
        std::filesystem::create_directories(temporary / "dst");
        engine.fileSystem = fileSystem;
        engine.flusher = flusher;
        engine.verificationMode = VerificationMode::verifyCopiedFiles;
        engine.metadataPolicy = MetadataPolicy::basic;
        engine.durabilityMode = DurabilityMode::durable;
        engine.runID = Uuid::parse("3F2A9C10-7B44-4A0E-8E11-2C5D9F00A1B2");
        engine.sourceRoot = fileSystem->openRoot((temporary / "src").string());
        engine.destinationRoot = fileSystem->openRoot((temporary / "dst").string());
    }

    // The action the planner would make for `path` now: the source as it is.
    SyncAction planned(SyncActionType type, const std::string& path) const {
        SyncAction action;
        action.type = type;
        action.relativePath = rel(path);
        action.sourceEntry = SharedEntry(fileSystem->entry(engine.sourceRoot, action.relativePath));
        action.expectedBytes = action.sourceEntry->size;
        return action;
    }

    FileResult copy(const SyncAction& action, const FileCopyEngine::ProgressCallback& progress = {},
                    const FileCopyEngine::CancellationCheck& isCancelled = {}) const {
        return engine.copyFile(action, progress, isCancelled);
    }

    std::string read(const std::string& relative) const { return temporary.readFile(relative); }

    TemporaryDirectory temporary;
    std::shared_ptr<FaultInjectingFileSystem> fileSystem =
        std::make_shared<FaultInjectingFileSystem>(std::make_shared<RealFileSystem>());
    std::shared_ptr<FaultInjectingFlusher> flusher =
        std::make_shared<FaultInjectingFlusher>(std::make_shared<POSIXFileFlusher>());
    FileCopyEngine engine;
};

}  // namespace varnel::testing
