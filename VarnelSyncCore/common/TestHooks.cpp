#include "common/TestHooks.hpp"

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdlib>
#include <string>

namespace varnel::testhooks {

std::string_view commitStepName(CommitStep step) {
    switch (step) {
        case CommitStep::createStaging: return "createStaging";
        case CommitStep::copyData: return "copyData";
        case CommitStep::finalBlock: return "finalBlock";
        case CommitStep::metadata: return "metadata";
        case CommitStep::verify: return "verify";
        case CommitStep::flushFile: return "flushFile";
        case CommitStep::rename: return "rename";
        case CommitStep::flushFolder: return "flushFolder";
    }
    return "";
}

std::optional<CommitStep> parseCommitStep(std::string_view name) {
    for (const CommitStep step : kAllCommitSteps) {
        if (commitStepName(step) == name) return step;
    }
    return std::nullopt;
}

#if VARNEL_TEST_HOOKS

namespace {

struct Settings {
    std::atomic<int> killStep{-1};  // a CommitStep, or -1 for none
    std::atomic<long> killArrival{1};
    std::atomic<long> arrivals{0};
    std::atomic<bool> skipFileFlush{false};

    Settings() {
        if (const char* kill = std::getenv("VARNEL_TEST_KILL_AT"); kill != nullptr && *kill != '\0') {
            const std::string text(kill);
            const auto colon = text.find(':');
            if (const auto step = parseCommitStep(std::string_view(text).substr(0, colon))) {
                killStep = static_cast<int>(*step);
            }
            if (colon != std::string::npos) {
                killArrival = std::max(1L, std::strtol(text.c_str() + colon + 1, nullptr, 10));
            }
        }
        const char* skip = std::getenv("VARNEL_TEST_SKIP_FILE_FLUSH");
        skipFileFlush = skip != nullptr && std::string_view(skip) == "1";
    }
};

Settings& settings() {
    static Settings instance;  // the environment is read once, at the first step
    return instance;
}

}  // namespace

void reached(CommitStep step) {
    Settings& s = settings();
    if (s.killStep.load(std::memory_order_relaxed) != static_cast<int>(step)) return;
    if (s.arrivals.fetch_add(1) + 1 == s.killArrival) std::raise(SIGKILL);
}

void setKillAt(std::optional<CommitStep> step, long arrival) {
    Settings& s = settings();
    s.killStep = -1;
    s.arrivals = 0;
    s.killArrival = std::max(1L, arrival);
    if (step) s.killStep = static_cast<int>(*step);
}

bool skipFileFlush() { return settings().skipFileFlush.load(std::memory_order_relaxed); }

void setSkipFileFlush(bool skip) { settings().skipFileFlush.store(skip); }

#endif

}  // namespace varnel::testhooks
