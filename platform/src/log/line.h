// A line of the log: TIME LEVEL [THREAD:TID] MODULE UNIT:LINE TEXT
#pragma once

#include <array>
#include <string_view>

#include "record.h"

namespace tov::log {

class Line {
 public:
  explicit Line(const Record& record) noexcept;

  // With the line break at its end.
  [[nodiscard]] std::string_view whole() const noexcept { return whole_; }
  // Without the time and the line break, for a log that has its own.
  [[nodiscard]] std::string_view withoutTime() const noexcept { return from(timeEnd_); }
  // What the message says, and nothing else.
  [[nodiscard]] std::string_view message() const noexcept { return from(headEnd_); }

 private:
  [[nodiscard]] std::string_view from(size_t start) const noexcept {
    return whole_.substr(start, whole_.size() - start - 1);
  }

  std::array<char, kMostLineBytes> bytes_;  // NOLINT: filled as far as the text goes
  std::string_view whole_;
  size_t timeEnd_ = 0;
  size_t headEnd_ = 0;
};

}  // namespace tov::log
