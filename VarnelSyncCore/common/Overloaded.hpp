#pragma once

namespace varnel {

// Builds one visitor from several lambdas, for std::visit over a case variant.
template <class... Ts>
struct Overloaded : Ts... {
    using Ts::operator()...;
};

}  // namespace varnel
