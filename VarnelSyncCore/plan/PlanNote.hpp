#pragma once

#include <nlohmann/json_fwd.hpp>

#include <string>
#include <vector>

namespace varnel {

// An information box shown with a plan (one per cloud-folder endpoint).
struct PlanNote {
    std::string id;
    std::string title;
    std::vector<std::string> lines;

    friend bool operator==(const PlanNote&, const PlanNote&) = default;
};

void to_json(nlohmann::json& json, const PlanNote& note);
void from_json(const nlohmann::json& json, PlanNote& note);

}  // namespace varnel
