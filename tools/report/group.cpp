#include "group.h"

#include <algorithm>
#include <array>
#include <string_view>

#include "log_time.h"
#include "output.h"
#include "selection.h"
#include "symbols.h"

namespace qurn::report {
namespace {

// Where a thread waits says little of why: frames of locks, of the C library and of system calls.
constexpr std::array<std::string_view, 22> kWaits{"__",
                                                  "_IO_",
                                                  "lll_",
                                                  "pthread_",
                                                  "epoll_",
                                                  "sem_",
                                                  "clock_",
                                                  "std::__",
                                                  "std::mutex",
                                                  "std::unique_lock",
                                                  "std::lock_guard",
                                                  "std::condition_variable",
                                                  "std::this_thread",
                                                  "futex",
                                                  "syscall",
                                                  "poll",
                                                  "ppoll",
                                                  "select",
                                                  "read",
                                                  "write",
                                                  "recv",
                                                  "nanosleep"};
constexpr size_t kBeginnings = 13;  // those at the front begin many names

bool isWait(const std::string& name) {
  const auto* beginnings = kWaits.begin() + kBeginnings;
  return std::any_of(kWaits.begin(), beginnings,
                     [&](std::string_view wait) { return name.starts_with(wait); }) ||
         std::find(beginnings, kWaits.end(), name) != kWaits.end();
}

// Frames without a name are left out: their addresses differ from process to process. A stack
// without any name is like no other, and what is stuck is then known by its thread at most.
std::vector<std::string> namesOf(const DeadLoop& loop) {
  std::vector<std::string> names;
  for (const Frame& frame : loop.frames) {
    if (!frame.symbol.empty()) {
      names.push_back(demangled(frame.symbol));
    }
  }
  if (names.empty()) {
    names = {loop.process, loop.thread};
    for (const Frame& frame : loop.frames) {
      names.push_back(frame.text);
    }
  }
  return names;
}

std::string fingerprintOf(const DeadLoop& loop) {
  const std::vector<std::string> names = namesOf(loop);
  auto from = std::find_if_not(names.begin(), names.end(), isWait);
  from = from == names.end() ? names.begin() : from;
  std::string fingerprint;
  std::for_each(from, names.end(),
                [&](const std::string& name) { fingerprint.append(name).push_back('\n'); });
  return fingerprint;
}

// Logs are read one after another; a time that cannot be told is as late as it stands.
bool isBefore(const LogTime& one, const LogTime& other) {
  const Time now = currentTime();
  const auto first = timeIn(one, now);
  const auto second = timeIn(other, now);
  return first && second && *first < *second;
}

void addTo(Group& group, const DeadLoop& loop) {
  const LogTime at = timeOf(loop);
  group.first = group.count == 0 || isBefore(at, group.first) ? at : group.first;
  group.last = group.count > 0 && isBefore(at, group.last) ? group.last : at;
  if (group.count == 0 || loop.frames.size() > group.example.frames.size()) {
    group.example = loop;
  }
  ++group.count;
  for (const Crossing& crossing : loop.silence) {
    group.longestSilenceMs = std::max(group.longestSilenceMs, crossing.silentMs);
  }
  ++group.processes[loop.process];
  ++group.threads[loop.thread];
  ++group.decisions[loop.captured || loop.decision.made() ? decisionText(loop) : "not captured"];
}

}  // namespace

void Groups::add(const DeadLoop& loop) {
  const size_t place = places_.try_emplace(fingerprintOf(loop), groups_.size()).first->second;
  groups_.resize(std::max(groups_.size(), place + 1));
  addTo(groups_[place], loop);
}

std::vector<Group> Groups::sorted() const {
  std::vector<Group> sorted = groups_;
  std::stable_sort(sorted.begin(), sorted.end(),
                   [](const Group& one, const Group& other) { return one.count > other.count; });
  return sorted;
}

std::string collapsedStack(const DeadLoop& loop) {
  std::string stack = loop.process.empty() ? "?" : loop.process;
  for (auto frame = loop.frames.rbegin(); frame != loop.frames.rend(); ++frame) {
    std::string name = frame->symbol.empty() ? frame->text : demangled(frame->symbol);
    std::replace(name.begin(), name.end(), ';', ':');  // which separates frames
    stack += ";" + (name.empty() ? "?" : name);
  }
  return stack;
}

}  // namespace qurn::report
