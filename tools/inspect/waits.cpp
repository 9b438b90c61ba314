#include "waits.h"

#include <linux/futex.h>
#include <pthread.h>
#include <sys/syscall.h>

#include <algorithm>
#include <ctime>
#include <map>
#include <string_view>

namespace qurn::inspect {
namespace {

constexpr uint32_t kTidMask = FUTEX_TID_MASK;

// ---- locks

struct Words {
  uint64_t address;
  std::array<uint32_t, 4> word;
};

uint64_t commandOf(const Call& call) {
  return call.arguments[1] & static_cast<uint64_t>(FUTEX_CMD_MASK);
}
bool isBitsetWait(const Call& call) { return commandOf(call) == FUTEX_WAIT_BITSET; }

pid_t asThread(uint32_t word, const std::set<pid_t>& threads) {
  const auto tid = static_cast<pid_t>(word & kTidMask);
  return threads.contains(tid) ? tid : 0;
}

// What the functions on the way to the wait are for: the C library's, by how their names begin.
// Those of others may be called as they like.
struct NameRule {
  std::string_view start;  // behind underscores
  Verdict kind;
};
constexpr NameRule kNameRules[] = {
    {"pthread_rwlock_", Verdict::kRwlock},
    {"pthread_cond_", Verdict::kCondition},
    {"pthread_mutex_", Verdict::kMutex},
    {"pthread_join", Verdict::kJoin},
    {"pthread_timedjoin", Verdict::kJoin},
    {"pthread_clockjoin", Verdict::kJoin},
    {"pthread_once", Verdict::kLock},
    {"sem_wait", Verdict::kSemaphore},
    {"sem_timedwait", Verdict::kSemaphore},
    {"sem_clockwait", Verdict::kSemaphore},
    {"new_sem_wait", Verdict::kSemaphore},
    {"malloc", Verdict::kLock},
    {"calloc", Verdict::kLock},
    {"realloc", Verdict::kLock},
    {"free", Verdict::kLock},
    {"libc_", Verdict::kLock},
};

Verdict kindByNames(const Target& target, const Call& call, const NameOfCode& nameOfCode) {
  constexpr size_t kWordsOfStack = 128;
  std::array<uint64_t, kWordsOfStack> stack{};
  size_t count = stack.size();
  while (count > 0 && !target.read(call.stackPointer, stack.data(), count * sizeof(uint64_t))) {
    count /= 2;  // close to the stack's end
  }
  for (size_t i = 0; i < count; ++i) {
    const std::string name = nameOfCode(stack[i]);
    const std::string_view plain =
        std::string_view(name).substr(std::min(name.find_first_not_of('_'), name.size()));
    for (const NameRule& rule : kNameRules) {
      if (plain.starts_with(rule.start)) {
        return rule.kind;
      }
    }
  }
  return Verdict::kLock;
}

// The writer of the read-write lock in which one waits at this word. Readers leave no name.
uint32_t writerOf(const Target& target, uint64_t futex) {
  using Data = decltype(pthread_rwlock_t::__data);
  const uint64_t lock = futex % 8 == 0 ? futex - offsetof(Data, __wrphase_futex)
                                       : futex - offsetof(Data, __writers_futex);
  return target.get<uint32_t>(lock + offsetof(Data, __cur_writer)).value_or(0);
}

uint32_t ownerOf(const Words& words) {
  return words.word[offsetof(decltype(pthread_mutex_t::__data), __owner) / 4];
}

// It may have ended, or belong to another process where the lock is shared.
void setHolder(Wait& wait, uint32_t word, const std::set<pid_t>& threads) {
  wait.holder = asThread(word, threads);
  wait.stranger = wait.holder == 0 ? static_cast<pid_t>(word & kTidMask) : 0;
}

// Where no name tells, as on the way of a timed mutex: its owner also counts as one of its users,
// which tells it from other locks whose word is 2 as well.
bool looksLikeMutex(uint32_t value, const Words& words, const std::set<pid_t>& threads) {
  const uint32_t users = words.word[offsetof(decltype(pthread_mutex_t::__data), __nusers) / 4];
  return value == 2 && words.word[0] == 2 && asThread(ownerOf(words), threads) != 0 && users != 0 &&
         users <= threads.size();
}

// Nothing to take, and somebody who waits.
bool looksLikeSemaphore(uint32_t value, const Words& words, const std::set<pid_t>& threads) {
  return value == 0 && words.word[0] == 0 && words.word[1] != 0 && words.word[1] <= threads.size();
}

void explainPlainWait(const Target& target, const Call& call, const Words& words,
                      const std::set<pid_t>& threads, const NameOfCode& nameOfCode, Wait& wait) {
  const auto value = static_cast<uint32_t>(call.arguments[2]);
  const bool isBitset = isBitsetWait(call);
  // The C library's own waits do not go through its function for everybody else's, whose words may
  // mean anything, and whose stacks may still show what was waited for earlier.
  if (nameOfCode(call.programCounter) == "syscall") {
    return;
  }
  wait.kind = kindByNames(target, call, nameOfCode);
  // Who was told to go on takes the mutex again within the same function.
  if (wait.kind == Verdict::kCondition && !isBitset && value != 0) {
    wait.kind = Verdict::kMutex;
  }
  const bool isNamed = wait.kind != Verdict::kLock && wait.kind != Verdict::kJoin;
  // In a container a thread's id may be as small as any lock's word. Who waits for the end of a
  // thread names it alone; in a robust mutex's word its owner is marked as waited for.
  const pid_t owner = asThread(value, threads);
  const bool isRobust = owner != 0 && (value & FUTEX_WAITERS) != 0;
  if (!isNamed && (isRobust || looksLikeMutex(value, words, threads))) {
    wait.kind = Verdict::kMutex;
  } else if (!isNamed && isBitset && owner != 0 && value == words.word[0] &&
             value == static_cast<uint32_t>(owner)) {
    wait.kind = Verdict::kJoin;
    wait.holder = owner;
  } else if (!isNamed && isBitset && looksLikeSemaphore(value, words, threads)) {
    wait.kind = Verdict::kSemaphore;
  }
  if (wait.kind == Verdict::kMutex) {
    setHolder(wait, isRobust ? words.word[0] : ownerOf(words), threads);
  } else if (wait.kind == Verdict::kRwlock) {
    setHolder(wait, writerOf(target, words.address), threads);
  }
}

Wait explainFutex(const Target& target, pid_t tid, const Call& call, const std::set<pid_t>& threads,
                  const NameOfCode& nameOfCode) {
  Wait wait{tid, Verdict::kLock, 0, 0, call.arguments[0], "futex"};
  const Words words{
      call.arguments[0],
      target.get<std::array<uint32_t, 4>>(call.arguments[0]).value_or(std::array<uint32_t, 4>{})};
  switch (commandOf(call)) {
    case FUTEX_LOCK_PI:
    case FUTEX_LOCK_PI2:
      wait.kind = Verdict::kMutex;
      setHolder(wait, words.word[0], threads);
      break;
    case FUTEX_WAIT:
    case FUTEX_WAIT_BITSET:
      explainPlainWait(target, call, words, threads, nameOfCode, wait);
      break;
    default:
      break;
  }
  return wait;
}

// ---- other system calls

struct CallRule {
  long number;
  const char* name;
  bool hasDescriptor;  // as its first argument
};
constexpr CallRule kCalls[] = {
    {SYS_read, "read", true},
    {SYS_write, "write", true},
    {SYS_readv, "readv", true},
    {SYS_writev, "writev", true},
    {SYS_pread64, "pread64", true},
    {SYS_pwrite64, "pwrite64", true},
    {SYS_preadv, "preadv", true},
    {SYS_pwritev, "pwritev", true},
    {SYS_sendfile, "sendfile", true},
    {SYS_splice, "splice", true},
    {SYS_copy_file_range, "copy_file_range", true},
    {SYS_getdents64, "getdents64", true},
    {SYS_close, "close", true},
    {SYS_recvfrom, "recvfrom", true},
    {SYS_recvmsg, "recvmsg", true},
    {SYS_recvmmsg, "recvmmsg", true},
    {SYS_sendto, "sendto", true},
    {SYS_sendmsg, "sendmsg", true},
    {SYS_sendmmsg, "sendmmsg", true},
    {SYS_accept, "accept", true},
    {SYS_accept4, "accept4", true},
    {SYS_connect, "connect", true},
    {SYS_epoll_pwait, "epoll_pwait", true},
    {SYS_epoll_pwait2, "epoll_pwait2", true},
    {SYS_io_uring_enter, "io_uring_enter", true},
    {SYS_flock, "flock", true},
    {SYS_fcntl, "fcntl", true},
    {SYS_fsync, "fsync", true},
    {SYS_fdatasync, "fdatasync", true},
    {SYS_ioctl, "ioctl", true},
    {SYS_openat, "openat", false},
    {SYS_ppoll, "ppoll", false},
    {SYS_pselect6, "pselect6", false},
    {SYS_wait4, "wait4", false},
    {SYS_waitid, "waitid", false},
    {SYS_rt_sigtimedwait, "rt_sigtimedwait", false},
    {SYS_rt_sigsuspend, "rt_sigsuspend", false},
    {SYS_msgrcv, "msgrcv", false},
    {SYS_msgsnd, "msgsnd", false},
    {SYS_semtimedop, "semtimedop", false},
    {SYS_mq_timedreceive, "mq_timedreceive", true},
    {SYS_mq_timedsend, "mq_timedsend", true},
    {SYS_io_getevents, "io_getevents", false},
    {SYS_restart_syscall, "restart_syscall", false},
#if defined(__x86_64__)
    {SYS_epoll_wait, "epoll_wait", true},
    {SYS_poll, "poll", false},
    {SYS_select, "select", false},
    {SYS_pause, "pause", false},
    {SYS_open, "open", false},
    {SYS_vfork, "vfork", false},
#endif
    {SYS_clone, "clone", false},
};

// A timed wait that was interrupted goes on under another number, with its arguments kept.
bool isResumed(const Call& call) { return call.number == SYS_restart_syscall; }

bool isFutex(const Call& call) {
  // What is shared between processes lacks the flag; a `poll` has no bits to match.
  const bool looksShared =
      isBitsetWait(call) && static_cast<uint32_t>(call.arguments[5]) == FUTEX_BITSET_MATCH_ANY;
  return call.number == SYS_futex ||
         (isResumed(call) && ((call.arguments[1] & FUTEX_PRIVATE_FLAG) != 0 || looksShared));
}

bool isSleep(const Call& call) {
  constexpr uint64_t kMostClocks = 16;
  switch (call.number) {
    case SYS_restart_syscall:
      return call.arguments[0] < kMostClocks && call.arguments[1] <= TIMER_ABSTIME;
    case SYS_nanosleep:
    case SYS_clock_nanosleep:
      return true;
#if defined(__x86_64__)
    case SYS_poll:
      return call.arguments[1] == 0;
    case SYS_select:
      return call.arguments[0] == 0;
#endif
    case SYS_ppoll:
      return call.arguments[1] == 0;
    case SYS_pselect6:
      return call.arguments[0] == 0;
    default:
      return false;
  }
}

bool isTimer(const std::string& descriptor) {
  return descriptor.find("[timerfd]") != std::string::npos;
}

Wait explainCall(const Target& target, pid_t tid, const Call& call) {
  Wait wait{tid, Verdict::kSyscall, 0, 0, 0, "system call " + std::to_string(call.number)};
  for (const CallRule& rule : kCalls) {
    if (rule.number == call.number) {
      wait.call = rule.name;
      if (rule.hasDescriptor) {
        const auto fd = static_cast<int>(call.arguments[0]);
        const std::string what = target.descriptor(fd);
        wait.kind = call.number == SYS_read && isTimer(what) ? Verdict::kSleep : Verdict::kSyscall;
        wait.call +=
            " on descriptor " + std::to_string(fd) + (what.empty() ? "" : " (" + what + ")");
      }
    }
  }
  return wait;
}

// The one that each waits for, if any.
using Holders = std::map<pid_t, pid_t>;

// From a thread on a cycle once around it, the lowest one first.
std::vector<pid_t> cycleAt(pid_t start, const Holders& holders) {
  std::vector<pid_t> cycle;
  pid_t at = start;
  do {
    cycle.push_back(at);
    at = holders.at(at);
  } while (at != start);
  std::rotate(cycle.begin(), std::min_element(cycle.begin(), cycle.end()), cycle.end());
  return cycle;
}

}  // namespace

std::optional<Wait> waitOf(const Target& target, pid_t tid, const Call& call,
                           const std::set<pid_t>& threads, const NameOfCode& nameOfCode) {
  if (call.isRunning || call.number < 0) {
    return std::nullopt;
  }
  if (isFutex(call)) {
    return explainFutex(target, tid, call, threads, nameOfCode);
  }
  if (isSleep(call)) {
    return Wait{tid, Verdict::kSleep, 0, 0, 0, ""};
  }
  return explainCall(target, tid, call);
}

std::vector<std::vector<pid_t>> cyclesOf(const std::vector<Wait>& waits) {
  Holders holders;
  for (const Wait& wait : waits) {
    if (wait.holder != 0) {
      holders[wait.tid] = wait.holder;
    }
  }
  // Each thread is passed once, on the way that first comes to it.
  std::vector<std::vector<pid_t>> cycles;
  std::map<pid_t, pid_t> passedFrom;
  for (const auto& [start, next] : holders) {
    pid_t at = start;
    while (holders.contains(at) && passedFrom.emplace(at, start).second) {
      at = holders.at(at);
    }
    if (holders.contains(at) && passedFrom.at(at) == start) {
      cycles.push_back(cycleAt(at, holders));
    }
  }
  return cycles;
}

}  // namespace qurn::inspect
