#include "log_reader.h"

#include <algorithm>
#include <vector>

#include "prefix.h"

namespace qurn::report {
namespace {

constexpr size_t kMostWriters = 8000;
constexpr size_t kMostSilent = 100'000;   // threads of all writers
constexpr size_t kMostLineBytes = 16384;  // a few times what the library writes

}  // namespace

void LogReader::takeLine(std::string_view line) {
  JournalRecord record;
  if (readJsonRecord(line, record)) {
    takeRecord(record);
  } else {
    take(line, {});
  }
}

// A service's standard error may be kept in the journal, each line with a prefix of its own.
void LogReader::take(std::string_view text, const JournalRecord& record) {
  text = text.substr(0, kMostLineBytes);
  text = text.substr(0, text.find_last_not_of("\r\n") + 1);
  const LogLine line = takeApart(text, beginsMessage);
  if (beginsMessage(line.message)) {
    Storyteller& teller = tellerOf(record.writer + line.writer());
    silent_ -= teller.silentCount();
    teller.tell(line.message, line.at.empty() ? std::string_view(record.at) : line.at);
    silent_ += teller.silentCount();
  }
}

Storyteller& LogReader::tellerOf(const std::string& writer) {
  if (writers_.size() >= kMostWriters || silent_ >= kMostSilent) {
    forgetQuietWriters();
  }
  Writer& found = writers_.try_emplace(writer, Writer{Storyteller(tellings_)}).first->second;
  found.heardAt = ++messages_;
  return found.teller;
}

// Processes come and go, each with threads of its own.
void LogReader::forgetQuietWriters() {
  std::vector<uint64_t> times;
  times.reserve(writers_.size());
  for (const auto& [name, writer] : writers_) {
    times.push_back(writer.heardAt);
  }
  const auto middle = times.begin() + static_cast<std::ptrdiff_t>(times.size() / 2);
  std::nth_element(times.begin(), middle, times.end());
  std::erase_if(writers_, [&](const auto& entry) { return entry.second.heardAt < *middle; });
  silent_ = 0;
  for (const auto& [name, writer] : writers_) {
    silent_ += writer.teller.silentCount();
  }
}

}  // namespace qurn::report
