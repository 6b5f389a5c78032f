#include "support/PlanRendering.hpp"

namespace varnel::testing {

std::vector<std::string> renderActions(const SyncPlan& plan) {
    std::vector<std::string> rendered;
    rendered.reserve(plan.actions.size());
    for (const auto& action : plan.actions) {
        rendered.push_back(std::string(toString(action.type)) + " " + std::string(action.relativePath.value()));
    }
    return rendered;
}

std::vector<std::string> warningMessages(const SyncPlan& plan, SyncWarning::Category category) {
    std::vector<std::string> messages;
    for (const auto& warning : plan.warnings) {
        if (warning.category == category) messages.push_back(warning.message);
    }
    return messages;
}

}  // namespace varnel::testing
