#include "snapshot.h"

#include <algorithm>

namespace qurn::inspect {

std::string_view wordOf(Verdict verdict) {
  constexpr std::array<std::string_view, 17> kWords{
      "working",   "loop",  "mutex",   "rwlock",          "lock",   "join",    "condition",
      "semaphore", "sleep", "syscall", "uninterruptible", "paging", "starved", "stopped",
      "traced",    "ended", "unknown"};
  return kWords[static_cast<size_t>(verdict)];
}

bool Snapshot::anybodySilent() const {
  return std::any_of(watched.begin(), watched.end(),
                     [](const WatchedThread& thread) { return thread.isSilent(); });
}

std::string Snapshot::nameOf(pid_t tid) const {
  std::string name = "thread";
  for (const auto& [other, otherName] : names) {
    name = other == tid && !otherName.empty() ? otherName : name;
  }
  for (const WatchedThread& thread : watched) {
    name = thread.tid == tid && !thread.name.empty() ? thread.name : name;
  }
  return name + " (" + std::to_string(tid) + ")";
}

}  // namespace qurn::inspect
