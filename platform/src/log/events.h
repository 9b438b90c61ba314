// What kind of message it is, for a log that takes more than text: told by its format, as the
// library passes each message with its own.
#pragma once

#include <array>
#include <cstdint>
#include <string_view>

#include "record.h"

namespace tov::log {

// The same 128 bits as in the message catalogue, in hexadecimal digits.
using MessageId = std::array<char, 32>;
MessageId messageIdOf(std::string_view format) noexcept;

// The first line of a dead loop's report.
bool beginsReport(const Record& record) noexcept;

// What a dead loop's lines tell, in the text; empty where a line does not tell it.
struct Told {
  std::string_view thread;
  std::string_view tid;
  std::string_view silenceMs;
  std::string_view frameNumber;
  std::string_view frame;
};
Told toldBy(const Record& record) noexcept;

}  // namespace tov::log
