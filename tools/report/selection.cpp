#include "selection.h"

namespace qurn::report {
namespace {

bool names(const std::vector<std::string>& wanted, const std::string& name, uint32_t id) {
  return wanted.empty() || std::any_of(wanted.begin(), wanted.end(), [&](const std::string& one) {
           return one == name || (id != 0 && one == std::to_string(id));
         });
}

}  // namespace

bool Selection::has(const DeadLoop& loop) const {
  if (!names(processes, loop.process, loop.processId) ||
      !names(threads, loop.thread, loop.threadId)) {
    return false;
  }
  if (!since && !until) {
    return true;
  }
  const std::optional<Time> at = timeIn(timeOf(loop), currentTime());
  return !at || ((!since || *at >= *since) && (!until || *at <= *until));
}

LogTime timeOf(const DeadLoop& loop) {
  return !loop.reportedAt.empty() || loop.silence.empty() ? loop.reportedAt
                                                          : loop.silence.back().at;
}

}  // namespace qurn::report
