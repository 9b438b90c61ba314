// Where lines may go. Each is one at a time, under the log's lock.
#pragma once

#include <sys/socket.h>

#include <memory>
#include <string>

#include "common/fork_mutex.h"
#include "record.h"

namespace spdlog::sinks {
class sink;
}

namespace tov::log {

// Past the stream of that name: a thread may be stuck with it locked.
class StandardError final : public Destination {
 public:
  bool take(const Record& record, int patienceMs) noexcept override;

 private:
  ssize_t write(std::string_view text) noexcept;

  uint32_t lines_ = 0;
  mode_t type_ = 0;
  bool isTorn_ = false;  // the last line has no end
};

class File final : public Destination {
 public:
  // Rotated at so many bytes. Throws when the file cannot be opened.
  void open(const std::string& path, size_t bytes);
  bool take(const Record& record, int patienceMs) noexcept override;

 private:
  spdlog::sinks::sink* file_ = nullptr;
};

// A socket that takes a datagram a message.
class DatagramSocket {
 public:
  explicit constexpr DatagramSocket(const char* path) noexcept : path_(path) {}

  enum class Answer : uint8_t { kTaken, kBusy, kTooLong, kNobody };
  // Waits for at most so long while the other side does not read.
  Answer send(msghdr& message, int patienceMs) noexcept;

 private:
  const char* path_;
  int fd_ = -1;
};

// The system log's own socket: the C library's call would take the lock of its time zones.
class SystemLog final : public Destination {
 public:
  explicit constexpr SystemLog(Destination& otherwise) noexcept : otherwise_(otherwise) {}
  bool take(const Record& record, int patienceMs) noexcept override;

 private:
  DatagramSocket socket_{"/dev/log"};
  Destination& otherwise_;
};

}  // namespace tov::log
