// The process guard's client, in a library of its own that a host loads if it is guarded. It speaks
// the service manager's notification protocol, so a real one can watch the process. Its caller is
// the thread that watches all others, so it never waits: a guard that does not read is told as an
// error.
#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "common/scoped_fd.h"
#include "common/uncancellable.h"

namespace {

// A path, or a name in the abstract space, which begins with a zero and is written with an "@".
// Returns its length, 0 when it is neither.
socklen_t readAddress(std::string_view name, sockaddr_un& address) noexcept {
  if (name.size() < 2 || name.size() >= sizeof(address.sun_path) ||
      (name.front() != '/' && name.front() != '@')) {
    return 0;
  }
  address = {};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, name.data(), name.size());
  const bool isAbstract = name.front() == '@';
  if (isAbstract) {
    address.sun_path[0] = '\0';
  }
  return static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size() +
                                (isAbstract ? 0 : 1));
}

// Positive when it was sent, 0 without a guard, otherwise a negative error number.
int notify(std::string_view message) noexcept {
  const char* name = getenv("NOTIFY_SOCKET");
  if (name == nullptr) {
    return 0;
  }
  sockaddr_un address{};
  const socklen_t length = readAddress(name, address);
  if (length == 0) {
    return -EINVAL;
  }
  const qurn::Uncancellable uncancellable;
  const qurn::ScopedFd socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  return socket.valid() && sendto(socket.get(), message.data(), message.size(), MSG_NOSIGNAL,
                                  reinterpret_cast<const sockaddr*>(&address), length) >= 0
             ? 1
             : -errno;
}

}  // namespace

extern "C" {

// Sends "READY=1" for 1 and "WATCHDOG=1" for 0. Returns 0 when it was sent, or when nobody listens;
// otherwise an error number.
__attribute__((visibility("default"))) int32_t bexlin_notify(int32_t what) {
  const int result = notify(what == 1 ? "READY=1" : "WATCHDOG=1");
  return result < 0 ? -result : 0;
}

}  // extern "C"
