// Memory that may not be there.
#pragma once

#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

namespace tov {

// Asks the kernel to read the eight bytes, which fails where we would fault: an invalid request
// number makes the call change nothing. Async-signal-safe, but for errno.
inline bool isReadable(uint64_t address) noexcept {
  constexpr int kInvalidRequest = ~0;
  syscall(SYS_rt_sigprocmask, kInvalidRequest, address, nullptr, sizeof(uint64_t));
  return errno == EINVAL;
}

}  // namespace tov
