// One message on its way to the log, and where it may go.
#pragma once

#include <sys/types.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <string_view>

namespace tov::log {

enum class Level : uint8_t { kInfo, kWarning, kError };

// All that can be known of a message; what the views show lives as long as the call that logs.
struct Record {
  timespec at;
  Level level;
  uint32_t moduleId;
  std::string_view path;  // of the unit
  uint32_t line;
  std::string_view thread;
  pid_t tid;
  std::string_view format;  // tells what kind of message it is
  std::string_view text;
  bool isCut;  // there was more text
};

// A pipe takes so much at once or nothing (PIPE_BUF): no line is longer.
inline constexpr size_t kMostLineBytes = 4096;

// Hands a record to a destination, waiting for at most so many milliseconds. False when it could
// not be taken. One at a time, under the log's lock.
using Take = bool (*)(const Record& record, int patienceMs) noexcept;

}  // namespace tov::log
