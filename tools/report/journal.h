// Reads the system's journal, or one that was brought from elsewhere, through the system's library.
#pragma once

#include <systemd/sd-journal.h>

#include <cstdint>
#include <memory>
#include <string>

#include "journal_record.h"
#include "log_reader.h"
#include "selection.h"

namespace qurn::report {

struct JournalChoice {
  std::string directory;  // of another journal than the system's, all of which is read unless a
                          // boot is named
  std::string unit;       // empty: all
  std::string boot;       // an id, one counted from the last ("0", "-1"), or "all"; empty: this one
};

class Journal {
 public:
  // Throws std::runtime_error when it cannot be read. Only what may matter to the selection is
  // read.
  Journal(const JournalChoice& choice, const Selection& selection);

  // All that has not been read yet.
  void read(LogReader& reader);

  // To be waited for until there is more.
  [[nodiscard]] int descriptor() const { return sd_journal_get_fd(journal_.get()); }

 private:
  void chooseUnit(const std::string& unit);
  void chooseBoot(const JournalChoice& choice);
  void chooseKinds();
  void match(const std::string& field, const std::string& value);
  // So many before the last one that the journal knows of.
  std::string bootBefore(int count);
  JournalRecord entry(uint64_t at);

  std::unique_ptr<sd_journal, decltype(&sd_journal_close)> journal_;
  uint64_t end_ = UINT64_MAX;  // microseconds since 1970
};

}  // namespace qurn::report
