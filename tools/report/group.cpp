#include "group.h"

#include <algorithm>
#include <array>
#include <string_view>

#include "../common/code_frame.h"
#include "log_time.h"
#include "output.h"
#include "selection.h"

namespace qurn::report {
namespace {

// Where a thread waits says little of why: frames of locks, of the C library and of system calls.
constexpr std::array<std::string_view, 10> kBeginnings{"__",
                                                       "_IO_",
                                                       "lll_",
                                                       "pthread_",
                                                       "std::__",
                                                       "std::mutex",
                                                       "std::unique_lock",
                                                       "std::lock_guard",
                                                       "std::condition_variable",
                                                       "std::this_thread"};
constexpr std::array<std::string_view, 54> kWaits{
    "accept",        "accept4",       "calloc",      "clock_gettime", "clock_nanosleep",
    "close",         "connect",       "epoll_pwait", "epoll_pwait2",  "epoll_wait",
    "fgets",         "fflush",        "fprintf",     "fputs",         "fread",
    "free",          "fsync",         "futex",       "futex_wait",    "fwrite",
    "getline",       "ioctl",         "malloc",      "memcmp",        "memcpy",
    "memmove",       "memset",        "nanosleep",   "open",          "poll",
    "ppoll",         "printf",        "pselect",     "read",          "realloc",
    "recv",          "recvfrom",      "recvmsg",     "sched_yield",   "select",
    "sem_clockwait", "sem_timedwait", "sem_wait",    "send",          "sendmsg",
    "sendto",        "sleep",         "strcmp",      "strlen",        "syscall",
    "usleep",        "wait4",         "waitpid",     "write"};

bool isWait(const Frame& frame) {
  // What it does not export has a name only where the process's memory map is there.
  if (frame.address != 0 && frame.module.starts_with("libc.so")) {
    return true;
  }
  const std::string name = demangled(frame.symbol);
  return std::any_of(kBeginnings.begin(), kBeginnings.end(),
                     [&](std::string_view beginning) { return name.starts_with(beginning); }) ||
         std::find(kWaits.begin(), kWaits.end(), name) != kWaits.end();
}

// Without any name a stack is like no other, and what is stuck is known by its thread at most.
std::string namelessFingerprintOf(const DeadLoop& loop) {
  std::string fingerprint = loop.process + "\n" + loop.thread + "\n";
  for (const Frame& frame : loop.frames) {
    fingerprint += nameOf(frame) + "\n";
  }
  return fingerprint;
}

// Frames without a name are left out: their addresses differ from process to process. So are those
// that the log has no name for where it names the stuck function: not every process's memory map is
// still there.
std::string fingerprintOf(const DeadLoop& loop) {
  const std::vector<Frame>& frames = loop.frames;
  const auto isNamed = [](const Frame& frame) { return !frame.symbol.empty() && !frame.isInlined; };
  auto stuck = std::find_if(frames.begin(), frames.end(),
                            [&](const Frame& frame) { return isNamed(frame) && !isWait(frame); });
  stuck = stuck == frames.end() ? std::find_if(frames.begin(), frames.end(), isNamed) : stuck;
  if (stuck == frames.end()) {
    return namelessFingerprintOf(loop);
  }
  const bool isLogged = stuck->address == 0;
  std::string fingerprint;
  for (auto frame = stuck; frame != frames.end(); ++frame) {
    if (!frame->symbol.empty() && (!isLogged || (frame->address == 0 && !frame->isInlined))) {
      fingerprint += demangled(frame->symbol) + "\n";
    }
  }
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
  const auto box = [](std::string name) {
    std::replace(name.begin(), name.end(), ';', ':');  // which separates boxes
    return name.empty() ? "?" : name;
  };
  std::string stack = box(loop.process);
  for (auto frame = loop.frames.rbegin(); frame != loop.frames.rend(); ++frame) {
    stack += ";" + box(nameOf(*frame));
  }
  return stack;
}

}  // namespace qurn::report
