#pragma once

#include <cassert>
#include <utility>
#include <variant>

namespace varnel {

// The result of a system-level step: a value, or the errno that stopped it. Lets the
// low layers stay free of message text; the caller names the operation and the path.
template <typename T>
class ErrnoOr {
public:
    ErrnoOr(T value) : state_(std::move(value)) {}  // NOLINT: implicit by design
    static ErrnoOr failure(int errnoValue) { return ErrnoOr(Failure{errnoValue}); }

    bool ok() const { return std::holds_alternative<T>(state_); }
    int error() const {
        assert(!ok());
        return std::get<Failure>(state_).errnoValue;
    }
    T& value() {
        assert(ok());
        return std::get<T>(state_);
    }

private:
    struct Failure {
        int errnoValue;
    };
    explicit ErrnoOr(Failure failure) : state_(failure) {}

    std::variant<T, Failure> state_;
};

}  // namespace varnel
