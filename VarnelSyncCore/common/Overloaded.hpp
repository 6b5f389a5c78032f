#pragma once

namespace varnel {

// Builds one visitor from several lambdas, for std::visit over a case variant.
template <class... Ts>
struct Overloaded : Ts... {
    using Ts::operator()...;
};
// C++20 deduces this for aggregates, but clang 14 (used for the fuzz and sanitizer
// builds) does not yet.
template <class... Ts>
Overloaded(Ts...) -> Overloaded<Ts...>;

}  // namespace varnel
