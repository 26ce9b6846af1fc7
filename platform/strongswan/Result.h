#pragma once

// The one way the strongSwan backend reports a failure: a function answers
// a Result, its value or an Error. An Error becomes the adapter's NSError
// (makeVPNError) only where it leaves the backend: in a completion or the
// answer of startVPNTunnel.

#include "platform/NEVPN.h"

#include <cstdint>
#include <optional>
#include <string>
#include <system_error>
#include <utility>
#include <variant>

namespace platform::strongswan {

// NEVPNErrorDomain codes used for the errors handed to completions.
enum NEVPNErrorCode : std::int64_t {
    NEVPNErrorConfigurationInvalid = 1,
    NEVPNErrorConfigurationDisabled = 2,
    NEVPNErrorConnectionFailed = 3,
    NEVPNErrorConfigurationStale = 4,
    NEVPNErrorConfigurationReadWriteFailed = 5,
    NEVPNErrorConfigurationUnknown = 6,
};

// What failed and why, in words that quote the bad input; `code` is the
// adapter's code for it should it reach a completion, `cause` the system's
// error behind it where there is one.
struct Error {
    explicit Error(std::string why, NEVPNErrorCode errorCode = NEVPNErrorConfigurationInvalid,
                   std::error_code systemError = {})
        : text(std::move(why)), code(errorCode), cause(systemError) {}

    std::string text;
    NEVPNErrorCode code;
    std::error_code cause;
};

// An NSError of NEVPNErrorDomain with `text` as its reason.
NSError makeVPNError(NEVPNErrorCode code, const std::string& text);
inline NSError makeVPNError(const Error& error) {
    return makeVPNError(error.code, error.text);
}

template <typename T>
class [[nodiscard]] Result {
  public:
    Result(T value) : state_(std::in_place_index<0>, std::move(value)) {}
    Result(Error error) : state_(std::in_place_index<1>, std::move(error)) {}

    bool ok() const { return state_.index() == 0; }
    explicit operator bool() const { return ok(); }

    T& value() & { return std::get<0>(state_); }
    const T& value() const& { return std::get<0>(state_); }
    T&& value() && { return std::get<0>(std::move(state_)); }
    T& operator*() & { return value(); }
    const T& operator*() const& { return value(); }
    T* operator->() { return &value(); }
    const T* operator->() const { return &value(); }

    const Error& error() const { return std::get<1>(state_); }

  private:
    std::variant<T, Error> state_;
};

// Success without a value.
template <>
class [[nodiscard]] Result<void> {
  public:
    Result() = default;
    Result(Error error) : error_(std::move(error)) {}

    bool ok() const { return !error_; }
    explicit operator bool() const { return ok(); }
    const Error& error() const { return *error_; }

  private:
    std::optional<Error> error_;
};

}  // namespace platform::strongswan
