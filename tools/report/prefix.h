// What stands before a message in a log: the log's own head, and what those who passed the line on
// wrote before it. Views are into the line.
#pragma once

#include <array>
#include <string>
#include <string_view>

namespace qurn::report {

struct LogLine {
  std::string_view message;
  std::string_view at;  // the time nearest to the message, as it was written; may be empty

  // What is the same in all lines of one thread, or of one process where the log names no threads.
  [[nodiscard]] std::string writer() const;
  void addWriter(std::string_view part);

  std::array<std::string_view, 8> writerParts{};
  size_t writerPartCount = 0;
  bool hasVersion = false;  // syslog's newer form, where the tag has columns of its own
  bool hasTag = false;
  bool hasHead = false;
};

// A message may look like a prefix, so each part is taken only if no message begins there.
LogLine takeApart(std::string_view text, bool (*beginsMessage)(std::string_view));

}  // namespace qurn::report
