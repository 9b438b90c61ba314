// One record of the system's journal, as `journalctl -o json` and `-o export` write them.
#pragma once

#include <string>
#include <string_view>

namespace qurn::report {

struct JournalRecord {
  std::string message;
  std::string at;      // UTC
  std::string writer;  // host, program, process and, where it is told, thread

  void take(std::string_view field, std::string_view value);
};

bool beginsExportedRecord(std::string_view line);

// False when the line is none.
bool readJsonRecord(std::string_view line, JournalRecord& record);

}  // namespace qurn::report
