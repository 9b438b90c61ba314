// The reader of reports: whatever a log holds, it is told without harm to the terminal, and as
// JSON.
#include <nlohmann/json.hpp>
#include <sstream>

#include "../../tools/report/log_reader.h"
#include "../../tools/report/output.h"
#include "fuzz_target.h"

// Control characters behind ASCII, as UTF-8 writes them.
static bool hasControls(const std::string& text) {
  return std::adjacent_find(text.begin(), text.end(), [](unsigned char one, unsigned char next) {
           return one == 0xC2 && next >= 0x80 && next < 0xA0;
         }) != text.end();
}

void tryInput(Bytes bytes) {
  const std::vector<char> bytesOfLog = bytes.text();
  std::istringstream log(std::string(bytesOfLog.begin(), bytesOfLog.end()));
  const auto loops = qurn::report::readLog(log);
  std::ostringstream text;
  qurn::report::writeText(text, loops, false);
  qurn::report::writeText(text, qurn::report::groupsOf(loops), false);
  qurn::report::writeCollapsed(text, qurn::report::collapsedStacks(loops));
  const std::string shown = text.str();
  assert(std::none_of(shown.begin(), shown.end(),
                      [](unsigned char c) { return (c < ' ' && c != '\n') || c == 0x7F; }));
  assert(!hasControls(nlohmann::json(shown).dump()));  // which throws when it is no UTF-8
  std::ostringstream json;
  qurn::report::writeJson(json, loops);
  assert(nlohmann::json::parse(json.str()).size() == loops.size());
  assert(!hasControls(json.str()));
  std::ostringstream groups;
  qurn::report::writeJson(groups, qurn::report::groupsOf(loops));
  assert(nlohmann::json::parse(groups.str()).empty() == loops.empty());
}
