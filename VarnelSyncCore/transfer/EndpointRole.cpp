#include "transfer/EndpointRole.hpp"

#include "common/Localization.hpp"

namespace varnel {

std::string_view toString(EndpointRole role) {
    return role == EndpointRole::source ? "source" : "destination";
}

std::optional<EndpointRole> parseEndpointRole(std::string_view raw) {
    if (raw == "source") return EndpointRole::source;
    if (raw == "destination") return EndpointRole::destination;
    return std::nullopt;
}

std::string roleWord(EndpointRole role) {
    return role == EndpointRole::source ? tr("source") : tr("destination");
}

}  // namespace varnel
