// Error: the failure value that every operation carries instead of throwing.
// A plain copyable value; any thread, no locking.
#pragma once

#include <cstdint>
#include <string>

#include "ferritcore/Export.h"

namespace FerritCore {

// [[nodiscard]]: an error that is made and dropped is a bug; a caller that means to ignore one says
// so with a cast to void.
class [[nodiscard]] FERRIT_EXPORT Error {
  public:
    // No error: code 0, empty message.
    Error() = default;
    Error(int32_t code, const std::string& message) : code_(code), message_(message) {}
    Error(int32_t code, std::string&& message) : code_(code), message_(std::move(message)) {}
    // printf-style. Formats into a 256-byte buffer first and, when the result does not fit,
    // a second time into a string of exactly the needed size. A formatting failure leaves the
    // message empty but keeps the code.
    Error(int32_t code, const char* format, ...) __attribute__((format(printf, 3, 4)));

    Error(const Error&) = default;
    Error& operator=(const Error&) = default;
    Error(Error&&) noexcept = default;
    Error& operator=(Error&&) noexcept = default;

    int32_t code() const { return code_; }
    const std::string& message() const { return message_; }
    // True when the code is not 0, whatever the message.
    explicit operator bool() const { return code_ != 0; }
    void clear() {
        code_ = 0;
        message_.clear();
    }

    // Errors compare by code only: two errors of one code differ only in wording.
    bool operator==(const Error& other) const { return code_ == other.code_; }

  private:
    int32_t code_ = 0;
    std::string message_;
};

}  // namespace FerritCore
