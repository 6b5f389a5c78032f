#pragma once

#include <optional>
#include <string_view>

// Test-only hooks into the commit sequence of one file, for the crash and power-cut
// tests. They exist only when the build sets VARNEL_TEST_HOOKS to 1 (the CMake option
// of the same name, on by default where the tests are built and off otherwise); without
// it every call below is an empty inline function and nothing is read.
//
// With the hooks compiled in, two environment variables are read once per process:
//
//     VARNEL_TEST_KILL_AT=STEP[:N]   raise(SIGKILL) the N-th time (default 1) any copy
//                                    of the process reaches STEP, named as below
//     VARNEL_TEST_SKIP_FILE_FLUSH=1  the staged file's own flush is skipped (the
//                                    deliberate bug the power-cut test must detect)
//
// Unset, each step costs one load of an already-initialised flag. The variables name a
// step that has just been completed, so killing at "rename" leaves the new file in place
// with its folder not yet flushed.
namespace varnel::testhooks {

// The commit sequence of one file, in order. copyData is reached after each block of a
// file's data except the last (so only files larger than one copy block reach it);
// finalBlock after the last block, before the file's length and metadata are set;
// verify only when verification is on; flushFile and flushFolder in every mode, Fast
// included (where nothing is flushed).
enum class CommitStep { createStaging, copyData, finalBlock, metadata, verify, flushFile, rename, flushFolder };

inline constexpr CommitStep kAllCommitSteps[] = {
    CommitStep::createStaging, CommitStep::copyData, CommitStep::finalBlock, CommitStep::metadata,
    CommitStep::verify,        CommitStep::flushFile, CommitStep::rename,    CommitStep::flushFolder,
};

// "createStaging", "copyData", "finalBlock", "metadata", "verify", "flushFile", "rename",
// "flushFolder".
std::string_view commitStepName(CommitStep step);
std::optional<CommitStep> parseCommitStep(std::string_view name);

#if VARNEL_TEST_HOOKS
inline constexpr bool kCompiledIn = true;
// Counts the arrival and kills the process when VARNEL_TEST_KILL_AT names this arrival.
void reached(CommitStep step);
// Whether the staged file's flush is to be skipped (VARNEL_TEST_SKIP_FILE_FLUSH, or
// setSkipFileFlush for tests that run the engine in their own process).
bool skipFileFlush();
void setSkipFileFlush(bool skip);
// As VARNEL_TEST_KILL_AT, for a forked child of a test that has read the environment
// already: the count of arrivals starts again.
void setKillAt(std::optional<CommitStep> step, long arrival = 1);
#else
inline constexpr bool kCompiledIn = false;
inline void reached(CommitStep) {}
inline bool skipFileFlush() { return false; }
inline void setSkipFileFlush(bool) {}
inline void setKillAt(std::optional<CommitStep>, long = 1) {}
#endif

}  // namespace varnel::testhooks
