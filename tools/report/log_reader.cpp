#include "log_reader.h"

#include <map>
#include <string>
#include <string_view>

#include "journal_record.h"
#include "prefix.h"
#include "storyteller.h"

namespace qurn::report {
namespace {

class Reader {
 public:
  explicit Reader(std::istream& log) : log_(log) {}

  std::vector<DeadLoop> read() {
    for (std::string line; std::getline(log_, line);) {
      JournalRecord record;
      if (beginsExportedRecord(line)) {
        takeRecord(readExportedRecord(log_));
      } else if (readJsonRecord(line, record)) {
        takeRecord(record);
      } else {
        takeLine(line, {});
      }
    }
    return std::move(loops_);
  }

 private:
  // A service's standard error may be kept in the journal, each line with a prefix of its own.
  void takeRecord(const JournalRecord& record) { takeLine(record.message, record); }

  void takeLine(std::string_view text, const JournalRecord& record) {
    text.remove_suffix(text.ends_with('\r') ? 1 : 0);
    const LogLine line = takeApart(text, beginsMessage);
    if (beginsMessage(line.message)) {
      Storyteller& teller =
          tellers_.try_emplace(record.writer + line.writer(), loops_).first->second;
      teller.tell(line.message, line.at.empty() ? std::string_view(record.at) : line.at);
    }
  }

  std::istream& log_;
  std::vector<DeadLoop> loops_;
  std::map<std::string, Storyteller> tellers_;  // by writer
};

}  // namespace

std::vector<DeadLoop> readLog(std::istream& log) { return Reader(log).read(); }

}  // namespace qurn::report
