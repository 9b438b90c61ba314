// Finds dead loops in the lines of a log.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>

#include "journal_record.h"
#include "storyteller.h"
#include "tellings.h"

namespace qurn::report {

// Tells them in the order in which their third thresholds, or else their reports, stand in the log,
// each as soon as it and those before it are whole. Lines of several processes may be mixed if what
// stands before their messages tells them apart. What it keeps does not grow with the log.
class LogReader {
 public:
  explicit LogReader(Sink sink) : tellings_(std::move(sink)) {}

  void takeLine(std::string_view line);
  void takeRecord(const JournalRecord& record) { take(wholeMessage(record), record); }
  // Called at regular intervals while more is awaited.
  void passTime() { tellings_.passTime(); }
  void finish() { tellings_.finish(); }

 private:
  struct Writer {
    Storyteller teller;
    uint64_t heardAt = 0;  // as a count of messages
  };

  void take(std::string_view text, const JournalRecord& record);
  Storyteller& tellerOf(const std::string& writer);
  void forgetQuietWriters();

  Tellings tellings_;
  std::map<std::string, Writer> writers_;
  uint64_t messages_ = 0;
  size_t silent_ = 0;  // threads, of all writers
};

}  // namespace qurn::report
