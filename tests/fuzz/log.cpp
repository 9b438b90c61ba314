// The reader of reports: whatever a log holds, it is told without harm to the terminal, and as
// JSON.
#include <nlohmann/json.hpp>
#include <sstream>

#include "../../tools/report/log_text.h"
#include "../../tools/report/output.h"
#include "../../tools/report/selection.h"
#include "../../tools/report/unpacker.h"
#include "fuzz_target.h"

// Control characters behind ASCII, as UTF-8 writes them.
static bool hasControls(const std::string& text) {
  return std::adjacent_find(text.begin(), text.end(), [](unsigned char one, unsigned char next) {
           return one == 0xC2 && next >= 0x80 && next < 0xA0;
         }) != text.end();
}

// The log, which may be packed, as the program would be given it, in blocks of this size.
static size_t tell(const std::vector<char>& log, size_t blockSize, qurn::report::Output& output) {
  size_t count = 0;
  qurn::report::Selection selection;
  qurn::report::LogReader reader([&](qurn::report::DeadLoop&& loop) {
    selection.since = qurn::report::timeIn(qurn::report::timeOf(loop), {});
    assert(selection.has(loop));
    output.tell(loop);
    ++count;
  });
  qurn::report::LogText text(reader);
  qurn::report::Unpacker unpacker([&](std::string_view block) { text.take(block); });
  for (size_t at = 0; at < log.size(); at += blockSize) {
    unpacker.take({log.data() + at, std::min(blockSize, log.size() - at)});
  }
  unpacker.end();
  text.end();
  reader.finish();
  output.end();
  return count;
}

void tryInput(Bytes bytes) {
  using namespace qurn::report;
  const std::vector<char> log = bytes.text();
  std::ostringstream text;
  const size_t count = tell(log, log.size() + 1, *textOutput(text, false));
  std::ostringstream again;
  tell(log, 1 + log.size() % 19, *textOutput(again, false));
  assert(text.str() == again.str());
  tell(log, log.size() + 1, *textGroupOutput(text, false));
  tell(log, log.size() + 1, *collapsedOutput(text));
  const std::string shown = text.str();
  assert(std::none_of(shown.begin(), shown.end(),
                      [](unsigned char c) { return (c < ' ' && c != '\n') || c == 0x7F; }));
  assert(!hasControls(nlohmann::json(shown).dump()));  // which throws when it is no UTF-8
  std::ostringstream json;
  tell(log, log.size() + 1, *jsonOutput(json));
  assert(nlohmann::json::parse(json.str()).size() == count);
  assert(!hasControls(json.str()));
  std::ostringstream groups;
  tell(log, log.size() + 1, *jsonGroupOutput(groups));
  assert(nlohmann::json::parse(groups.str()).empty() == (count == 0));
}
