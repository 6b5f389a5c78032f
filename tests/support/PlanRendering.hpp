#pragma once

#include "plan/SyncPlan.hpp"

#include <string>
#include <vector>

namespace varnel::testing {

// "copyNewFile a.txt", one string per action in plan order, for readable assertions.
std::vector<std::string> renderActions(const SyncPlan& plan);
// The messages of the plan's warnings of one category.
std::vector<std::string> warningMessages(const SyncPlan& plan, SyncWarning::Category category);

}  // namespace varnel::testing
