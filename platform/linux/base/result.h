#pragma once

#include <cerrno>
#include <string>
#include <system_error>
#include <utility>
#include <variant>

// How operations of the Linux platform and of the tools tell that they failed:
//
//   std::error_code   where a system call failed and there is no value to return; false means success
//   Result<T>         where there is a value, or a reason that an error number cannot tell
//
// An optional is no failure: it holds something that need not be there.
namespace KITE::Linux {

// The error of the system call that failed last on this thread.
inline std::error_code LastError() noexcept {
    return {errno, std::generic_category()};
}

// For calls that return an error number themselves; libsystemd's are negative.
inline std::error_code ErrorOf(int number) noexcept {
    return {number < 0 ? -number : number, std::generic_category()};
}

// Whether an error is that one ("error == std::errc::..." also matches what other categories map to it).
inline bool Is(const std::error_code& error, int number) noexcept {
    return error == ErrorOf(number);
}

// Why something failed.
class Failure {
  public:
    // NOLINTNEXTLINE(google-explicit-constructor): a failed call is returned as it is.
    Failure(std::error_code code) : code_(code) {}
    // The reason, or what was done, and the error that it met if a system call failed: "what: error".
    explicit Failure(std::string words, std::error_code code = {}) : code_(code), words_(std::move(words)) {}

    // Zero where no system call failed.
    const std::error_code& Code() const noexcept { return code_; }
    // Without the error of the system call.
    const std::string& Words() const noexcept { return words_; }
    std::string Text() const {
        if (!code_) {
            return words_;
        }
        return words_.empty() ? code_.message() : words_ + ": " + code_.message();
    }
    // The same failure, told with what was done when it happened: "what: failure".
    Failure In(const std::string& what) const {
        Failure failure = *this;
        failure.words_ = words_.empty() ? what : what + ": " + words_;
        return failure;
    }

  private:
    std::error_code code_;
    std::string words_;
};

// A value, or why there is none. Result<void> has no value.
template <typename T>
class [[nodiscard]] Result {
  public:
    // NOLINTBEGIN(google-explicit-constructor): both are returned as they are.
    Result(T value) : state_(std::in_place_index<0>, std::move(value)) {}
    Result(Failure failure) : state_(std::in_place_index<1>, std::move(failure)) {}
    Result(std::error_code code) : Result(Failure(code)) {}
    // NOLINTEND(google-explicit-constructor)

    explicit operator bool() const noexcept { return state_.index() == 0; }
    T& operator*() { return std::get<0>(state_); }
    const T& operator*() const { return std::get<0>(state_); }
    T* operator->() { return &std::get<0>(state_); }
    const T* operator->() const { return &std::get<0>(state_); }
    T ValueOr(T other) && { return *this ? std::move(std::get<0>(state_)) : std::move(other); }

    // Only of a result without a value.
    const Failure& Why() const { return std::get<1>(state_); }
    // Zero on success, and where no system call failed.
    std::error_code Code() const { return *this ? std::error_code() : Why().Code(); }

  private:
    std::variant<T, Failure> state_;
};

template <>
class [[nodiscard]] Result<void> : public Result<std::monostate> {
  public:
    using Result<std::monostate>::Result;
    Result() : Result<std::monostate>(std::monostate()) {}
};

}  // namespace KITE::Linux
