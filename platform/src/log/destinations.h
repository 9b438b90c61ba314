// Where lines may go.
#pragma once

#include <sys/socket.h>
#include <sys/types.h>
#include <sys/uio.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "record.h"

namespace tov::log {

// Past the stream of that name: a thread may be stuck with it locked.
bool writeToStandardError(const Record& record, int patienceMs) noexcept;

// Rotated at so many bytes, and so many rotated ones are kept. Throws when it cannot be opened, or
// is no regular file: who writes to another may have to wait.
void openFile(const std::string& path, size_t bytes, size_t kept);
bool writeToFile(const Record& record, int patienceMs) noexcept;

// Its own socket: the C library's call would take the lock of its time zones. Without one, standard
// error.
bool writeToSystemLog(const Record& record, int patienceMs) noexcept;

// A descriptor of the log's own. The process may close all that it does not know, and the number
// may be something else's then, in which no line must end up.
class OwnFd {
 public:
  // Whether it has one still, and then how long the file is.
  bool isOurs(uint64_t& length) const noexcept;
  void set(int fd) noexcept;
  [[nodiscard]] int get() const noexcept { return fd_; }

 private:
  int fd_ = -1;
  dev_t device_ = 0;
  uint64_t node_ = 0;
};

// A socket that takes a datagram a message.
class DatagramSocket {
 public:
  explicit constexpr DatagramSocket(const char* path) noexcept : path_(path) {}

  enum class Answer : uint8_t { kTaken, kBusy, kTooLong, kNobody };
  // Waits for at most so long while the other side does not read.
  Answer send(msghdr message, int patienceMs) noexcept;

 private:
  const char* path_;
  OwnFd fd_;
};

// What is only read has no type of its own there.
inline iovec partOf(std::string_view text) noexcept {
  return {const_cast<char*>(text.data()), text.size()};  // NOLINT(*-const-cast)
}

}  // namespace tov::log
