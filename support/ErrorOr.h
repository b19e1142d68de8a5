// ErrorOr<T>: what a function that produces a value returns, either the value or the Error that
// kept it from being made. A plain value; not thread-safe, like the T it holds.
//
// The rule (see the README's conventions): a function that produces a value returns ErrorOr<T>; a
// function that produces nothing returns Error. Both are [[nodiscard]], so a caller that drops a
// failure is told by the compiler; one that means to ignore it says so with a cast to void.
//
//     ErrorOr<std::string> text = store.readConfig();
//     if (!text.ok()) return text.error();
//     use(*text);
#pragma once

#include <optional>
#include <type_traits>
#include <utility>

#include "ferritcore/Error.h"
#include "support/Contract.h"

namespace FerritCore {

template <typename T>
class [[nodiscard]] ErrorOr {
    static_assert(!std::is_same_v<std::remove_cv_t<T>, Error>,
                  "a function that produces only an Error returns Error");
    static_assert(!std::is_reference_v<T>, "ErrorOr holds a value, not a reference");

  public:
    // A value: `return value;` from a function that returns ErrorOr<T>.
    ErrorOr(const T& value) : value_(value) {}
    ErrorOr(T&& value) : value_(std::move(value)) {}
    // A failure: `return Errors::fileNotExists(file);`. The error must be one (a non-zero code):
    // an ErrorOr that holds neither a value nor a failure is a bug of the caller.
    ErrorOr(Error error) : error_(std::move(error)) {
        if (kContractsChecked && !error_)
            contractBroken("ErrorOr made from no error", __FILE__, __LINE__);
    }

    ErrorOr(const ErrorOr&) = default;
    ErrorOr& operator=(const ErrorOr&) = default;
    ErrorOr(ErrorOr&&) noexcept(std::is_nothrow_move_constructible_v<T>) = default;
    ErrorOr& operator=(ErrorOr&&) noexcept(std::is_nothrow_move_assignable_v<T>) = default;

    // True when it holds the value. There is no conversion to bool: an Error converts to true
    // when it is one, an ErrorOr would to true when it is not, and one reader would mix them up.
    bool ok() const { return value_.has_value(); }

    // The failure; no error (code 0) when it holds the value.
    const Error& error() const& { return error_; }
    Error error() && { return std::move(error_); }

    // The value; only when ok() (a failure's value is a bug, checked where contracts are).
    const T& value() const& {
        checkValue();
        return *value_;
    }
    T& value() & {
        checkValue();
        return *value_;
    }
    T value() && {
        checkValue();
        return std::move(*value_);
    }
    const T& operator*() const& { return value(); }
    T& operator*() & { return value(); }
    T operator*() && { return std::move(*this).value(); }
    const T* operator->() const { return &value(); }
    T* operator->() { return &value(); }

    // The value, or `fallback` on a failure: for callers for which a failure means a default.
    T valueOr(T fallback) const& { return ok() ? *value_ : std::move(fallback); }
    T valueOr(T fallback) && { return ok() ? std::move(*value_) : std::move(fallback); }

  private:
    void checkValue() const {
        if (kContractsChecked && !value_)
            contractBroken("value of a failed ErrorOr", __FILE__, __LINE__);
    }

    Error error_;
    std::optional<T> value_;
};

}  // namespace FerritCore
