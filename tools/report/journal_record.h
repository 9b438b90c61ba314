// One record of the system's journal, as `journalctl -o json` and `-o export` write them, or of
// what Docker keeps of a container.
#pragma once

#include <string>
#include <string_view>

namespace qurn::report {

struct JournalRecord {
  std::string message;
  std::string at;      // UTC
  std::string writer;  // host, program, process and, where it is told, thread

  std::string silenceMs;  // of a threshold's message
  std::string frameNumber;
  std::string frame;

  void take(std::string_view field, std::string_view value);
};

bool beginsExportedRecord(std::string_view line);

// The message with what was cut from it on the way, as far as other fields tell.
std::string wholeMessage(const JournalRecord& record);

// False when the line is none.
bool readJsonRecord(std::string_view line, JournalRecord& record);

}  // namespace qurn::report
