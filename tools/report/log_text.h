// What is read of a log, in blocks of any size, as lines and journal records.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "journal_record.h"
#include "log_reader.h"

namespace qurn::report {

class LogText {
 public:
  explicit LogText(LogReader& reader) : reader_(reader) {}

  void take(std::string_view block);
  // The end of a file, whose last line may lack its own.
  void end();

 private:
  enum class Expected : uint8_t { kLine, kField, kLength, kValue };

  size_t passOver(std::string_view block);
  [[nodiscard]] size_t lengthOfRest(std::string_view block) const;
  void step(std::string_view piece);
  void takeField(std::string_view line);
  void endRecord();

  LogReader& reader_;
  Expected expected_ = Expected::kLine;
  uint64_t valueLength_ = 0;
  std::string kept_;  // the beginning of what is expected
  JournalRecord record_;
  std::string field_;  // whose value is expected
};

}  // namespace qurn::report
