// Owns a descriptor for a scope.
#pragma once

#include <unistd.h>

#include <utility>

namespace qurn {

class ScopedFd {
 public:
  explicit ScopedFd(int fd) noexcept : fd_(fd) {}
  ~ScopedFd() {
    if (fd_ >= 0) {
      close(fd_);
    }
  }
  ScopedFd(const ScopedFd&) = delete;
  ScopedFd& operator=(const ScopedFd&) = delete;

  [[nodiscard]] bool valid() const noexcept { return fd_ >= 0; }
  [[nodiscard]] int get() const noexcept { return fd_; }
  int release() noexcept { return std::exchange(fd_, -1); }

 private:
  int fd_;
};

}  // namespace qurn
