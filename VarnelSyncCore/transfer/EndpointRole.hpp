#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace varnel {

enum class EndpointRole { source, destination };

std::string_view toString(EndpointRole role);  // raw value
std::optional<EndpointRole> parseEndpointRole(std::string_view raw);
// The lower-case word inserted into sentences ("source", "destination"), translated.
std::string roleWord(EndpointRole role);

}  // namespace varnel
