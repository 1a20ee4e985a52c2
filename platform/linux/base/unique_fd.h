#pragma once

#include <unistd.h>

#include <utility>

namespace KITE::Linux {

// Owns a file descriptor; negative is none.
class UniqueFd {
  public:
    UniqueFd() noexcept = default;
    explicit UniqueFd(int fd) noexcept : fd_(fd) {}
    UniqueFd(UniqueFd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        std::swap(fd_, other.fd_);
        return *this;
    }
    ~UniqueFd() {
        if (fd_ >= 0) {
            close(fd_);
        }
    }

    int Get() const noexcept { return fd_; }
    // Gives the descriptor up without closing it.
    int Release() noexcept { return std::exchange(fd_, -1); }
    explicit operator bool() const noexcept { return fd_ >= 0; }

  private:
    int fd_ = -1;
};

}  // namespace KITE::Linux
