// What an inspection finds out, as the outputs write it.
#pragma once

#include <sys/types.h>

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "../common/code_frame.h"

namespace qurn::inspect {

enum class Verdict : uint8_t {
  kWorking,
  kLoop,
  kMutex,
  kRwlock,
  kLock,
  kJoin,
  kCondition,
  kSemaphore,
  kSleep,
  kSyscall,
  kUninterruptible,
  kPaging,
  kStarved,
  kStopped,
  kTraced,
  kEnded,
  kUnknown
};
std::string_view wordOf(Verdict verdict);

// What a blocked thread waits for; `kind` is one of those from kMutex to kSyscall.
struct Wait {
  pid_t tid = 0;
  Verdict kind = Verdict::kUnknown;
  pid_t holder = 0;      // a thread of the process, 0 where none is known
  pid_t stranger = 0;    // who holds it instead, and is none
  uint64_t address = 0;  // of the lock
  std::string call;      // the system call, and what its descriptor is

  bool operator==(const Wait&) const = default;
};

struct WatchedThread {
  uint64_t slot = 0;
  pid_t tid = 0;
  std::string name;
  int64_t silenceMs = 0;
  unsigned level = 0;
  std::array<uint32_t, 3> thresholdsMs{};
  bool isMeasured = true;  // its switch
  bool hasHook = false;
  std::optional<bool> blocksSignal;  // unknown on a core
  Verdict verdict = Verdict::kUnknown;
  pid_t holder = 0;
  std::string why;  // the verdict in words, with what is known beyond it

  [[nodiscard]] bool isSilent() const { return isMeasured && silenceMs >= thresholdsMs[0]; }
};

struct Process {
  pid_t pid = 0;
  std::string name;
  int64_t upMs = -1;  // since it was started; -1 where that is not known
  std::string library;
  std::string platform;
  uint32_t periodMs = 0;
  std::string status;          // idle, signalled, captured
  int64_t statusSinceMs = -1;  // -1 while it is idle
  bool isReportedTo = false;   // somebody gets keep-alive reports
  bool isReady = false;
  uint32_t keepAlivePeriodMs = 0;
  int64_t lastReportMs = -1;  // since the last one; -1 before the first
  bool isCore = false;
  // Than it knows itself: a debugger's core, taken outside its namespace, or the child of a fork.
  bool hasOtherIds = false;
};

struct Stack {
  pid_t tid = 0;
  std::string name;
  std::string note;  // why there are no frames, or fewer
  std::vector<CodeFrame> frames;
};

struct Register {
  std::string name;
  uint64_t value = 0;
};

struct Word {
  uint64_t address = 0;
  uint64_t value = 0;
  std::string code;  // what is there, if it is an address of code
};

// The library's last capture.
struct Capture {
  std::string at;
  pid_t tid = 0;
  std::vector<CodeFrame> frames;
  std::vector<Register> registers;
  std::vector<Word> stack;
};

struct Snapshot {
  Process process;
  std::vector<WatchedThread> watched;
  std::vector<Wait> waits;
  std::vector<std::vector<pid_t>> deadlocks;
  std::vector<Stack> stacks;
  std::optional<Capture> capture;

  [[nodiscard]] bool anybodySilent() const;
  [[nodiscard]] std::string nameOf(pid_t tid) const;  // with its number

  std::vector<std::pair<pid_t, std::string>> names;  // of threads in waits that are not watched
};

}  // namespace qurn::inspect
