#pragma once
// Result<T, E>: a value, or an error code with a detail text. The core returns these
// instead of throwing across module boundaries.

#include <string>
#include <utility>
#include <variant>

namespace veltrin {

template <typename E>
struct Failure {
    E code;
    std::string detail;
};

template <typename T, typename E>
class Result {
public:
    Result(T value) : m_state(std::move(value)) {}
    Result(Failure<E> failure) : m_state(std::move(failure)) {}

    bool ok() const { return std::holds_alternative<T>(m_state); }
    explicit operator bool() const { return ok(); }

    T& value() & { return std::get<T>(m_state); }
    const T& value() const& { return std::get<T>(m_state); }
    T&& value() && { return std::get<T>(std::move(m_state)); }
    T* operator->() { return &value(); }
    const T* operator->() const { return &value(); }

    E error() const { return std::get<Failure<E>>(m_state).code; }
    const std::string& detail() const { return std::get<Failure<E>>(m_state).detail; }

private:
    std::variant<T, Failure<E>> m_state;
};

template <typename E>
Failure<E> fail(E code, std::string detail = {})
{
    return Failure<E>{code, std::move(detail)};
}

}  // namespace veltrin
