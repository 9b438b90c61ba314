#include "inspection.h"

#include <algorithm>
#include <csignal>
#include <map>
#include <set>
#include <thread>
#include <utility>

namespace qurn::inspect {
namespace {

// One look at all threads, and at more of those that the watch or a wait names.
struct Look {
  timespec at{};
  std::vector<Beat> watch;
  std::set<pid_t> threads;
  std::map<pid_t, Wait> waits;
  std::map<pid_t, Detail> details;
};

template <typename Map>
const typename Map::mapped_type* find(const Map& map, pid_t tid) {
  const auto found = map.find(tid);
  return found == map.end() ? nullptr : &found->second;
}

class Looker {
 public:
  Looker(const Target& target, const Library& library, const NameOfCode& nameOfCode)
      : target_(target), library_(library), nameOfCode_(nameOfCode) {}

  // The second look is for those whom it can tell more of than the first: the watched, and whoever
  // may be part of a cycle.
  [[nodiscard]] Look look(const Look& earlier = {}) const {
    Look look;
    look.at = target_.now().value_or(timespec{});
    if (target_.isCore()) {
      look.at = freshestTime(target_, library_);
    }
    look.watch = readWatch(target_, library_, look.at);
    const std::vector<pid_t> threads = target_.threads();
    look.threads = {threads.begin(), threads.end()};
    const std::set<pid_t> watched = watchedIn(look);
    for (const pid_t tid : threads) {
      const Wait* known = find(earlier.waits, tid);
      if (known != nullptr && known->holder == 0 && !watched.contains(tid)) {
        look.waits[tid] = *known;
      } else {
        lookAt(tid, look);
      }
    }
    for (const pid_t tid : namedBy(look, watched)) {
      if (std::optional<Detail> detail = target_.detailOf(tid)) {
        look.details[tid] = std::move(*detail);
      }
    }
    return look;
  }

 private:
  void lookAt(pid_t tid, Look& look) const {
    if (const std::optional<Call> call = target_.callOf(tid)) {
      if (auto wait = waitOf(target_, tid, *call, look.threads, nameOfCode_)) {
        look.waits[tid] = std::move(*wait);
      }
    }
  }

  static std::set<pid_t> watchedIn(const Look& look) {
    std::set<pid_t> watched;
    for (const Beat& beat : look.watch) {
      watched.insert(beat.thread.tid);
    }
    return watched;
  }

  // The watched ones, and whoever is in a chain of waits.
  static std::set<pid_t> namedBy(const Look& look, std::set<pid_t> named) {
    for (const auto& [tid, wait] : look.waits) {
      if (wait.holder != 0) {
        named.insert({tid, wait.holder});
      }
    }
    return named;
  }

  const Target& target_;
  const Library& library_;
  const NameOfCode& nameOfCode_;
};

// ---- the verdict on one thread

// With its control group, as a container is paused: where the older kind freezes a thread within a
// wait, only others tell.
bool isFrozen(const Detail& detail, const Look& look) {
  const auto isInOldFreezer = [](const auto& known) {
    return known.second.state == 'D' && known.second.kernelPlace == "__refrigerator";
  };
  return (detail.state == 'S' &&
          (detail.kernelPlace == "do_freezer_trap" || detail.kernelPlace == "get_signal")) ||
         (detail.state == 'D' &&
          std::any_of(look.details.begin(), look.details.end(), isInOldFreezer));
}

class Judge {
 public:
  Judge(const Snapshot& snapshot, const Look& first, const Look& second,
        std::chrono::nanoseconds between)
      : snapshot_(snapshot), first_(first), second_(second), betweenNs_(between.count()) {}

  void judge(WatchedThread& thread, bool hasBeaten) const {
    if (!second_.threads.contains(thread.tid)) {
      snapshot_.process.hasOtherIds
          ? decide(thread, Verdict::kUnknown,
                   snapshot_.process.isCore
                       ? "the core has the ids of another namespace"
                       : "was watched in the process that this one was forked from")
          : decide(thread, Verdict::kEnded, "ended without stopping its heartbeat");
      return;
    }
    const Detail* before = find(first_.details, thread.tid);
    const Detail* after = find(second_.details, thread.tid);
    if (after != nullptr) {
      thread.blocksSignal = ((after->blocked >> static_cast<unsigned>(SIGRTMIN + 1)) & 1U) != 0;
    }
    const bool isStuckInKernel =
        !hasBeaten && before != nullptr && before->state == 'D' && after != nullptr;
    if (!judgeByState(thread, after, isStuckInKernel)) {
      hasBeaten ? decide(thread, Verdict::kWorking, "has just sent a heartbeat")
                : judgeByWait(thread, before, after);
    }
  }

 private:
  static void decide(WatchedThread& thread, Verdict verdict, std::string why) {
    thread.verdict = verdict;
    thread.why = std::move(why);
  }

  bool judgeByState(WatchedThread& thread, const Detail* after, bool isStuckInKernel) const {
    const char state = after == nullptr ? '?' : after->state;
    if (state == 't') {
      decide(thread, Verdict::kTraced,
             "stopped by its tracer, process " + std::to_string(after->tracer));
    } else if (state == 'T') {
      decide(thread, Verdict::kStopped, "stopped by a signal" + alsoWaits(thread.tid));
    } else if (after != nullptr && isFrozen(*after, second_)) {
      decide(thread, Verdict::kStopped, "frozen with its control group" + alsoWaits(thread.tid));
    } else if (state == 'D' && isStuckInKernel) {
      decide(thread, Verdict::kUninterruptible,
             "does not return from the kernel, in " +
                 (after->kernelPlace.empty() ? "an unknown place" : after->kernelPlace));
    } else if (state == 'Z' || state == 'X') {
      decide(thread, Verdict::kEnded, "has ended");
    } else {
      return false;
    }
    return true;
  }

  [[nodiscard]] std::string alsoWaits(pid_t tid) const {
    const Wait* wait = find(second_.waits, tid);
    return wait == nullptr ? "" : "; " + wordsFor(*wait);
  }

  // Whether it waits the same in both looks, and hardly ran between, makes it a wait; else it comes
  // and goes.
  void judgeByWait(WatchedThread& thread, const Detail* before, const Detail* after) const {
    const Wait* wait = find(second_.waits, thread.tid);
    const Wait* earlier = find(first_.waits, thread.tid);
    const bool isTold = before != nullptr && after != nullptr;
    const int64_t ran = isTold ? static_cast<int64_t>(after->runNs - before->runNs) : 0;
    if (wait != nullptr && earlier != nullptr && *wait == *earlier && ran <= betweenNs_ / 10) {
      thread.holder = wait->holder;
      decide(thread, wait->kind, wordsFor(*wait));
      return;
    }
    if (!isTold || betweenNs_ == 0) {
      decide(thread, Verdict::kUnknown, "takes a second look");
      return;
    }
    const bool isNoWait = wait == nullptr && earlier == nullptr;
    if (isNoWait && isPaging(*before) && isPaging(*after) && ran <= betweenNs_ / 10) {
      decide(thread, Verdict::kPaging, "waits for a page that somebody in user space is to fill");
      return;
    }
    const auto kept = static_cast<int64_t>(after->delayNs - before->delayNs);
    // The delay is only counted once it is over.
    const bool neverSlept =
        before->state == 'R' && after->state == 'R' && before->sleeps == after->sleeps;
    const bool isKept = neverSlept || kept > betweenNs_ / 2 || (ran == 0 && wait == nullptr);
    if (isKept && ran < betweenNs_ / 10) {
      decide(thread, Verdict::kStarved, "could run, but gets no processor");
    } else if (ran > 0) {
      decide(thread, Verdict::kLoop,
             "uses a processor for " + std::to_string(ran * 100 / betweenNs_) + " % of the time");
    } else if (wait != nullptr) {
      thread.holder = wait->holder;
      decide(thread, wait->kind, wordsFor(*wait));
    }
  }

  // Asleep in a page fault that has been handed to whoever holds the memory's userfaultfd.
  static bool isPaging(const Detail& detail) {
    return detail.state == 'S' && detail.kernelPlace == "handle_userfault";
  }

  [[nodiscard]] std::string wordsFor(const Wait& wait) const {
    const std::string holder =
        wait.holder != 0 ? snapshot_.nameOf(wait.holder)
        : wait.stranger == 0 || snapshot_.process.hasOtherIds
            ? ""
            : std::to_string(wait.stranger) + ", which is no thread of this process, or no more";
    switch (wait.kind) {
      case Verdict::kMutex:
        return "waits for a mutex" + (holder.empty() ? "" : ", held by " + holder);
      case Verdict::kRwlock:
        return "waits for a read-write lock" +
               (holder.empty() ? ", which readers hold" : ", written by " + holder);
      case Verdict::kLock:
        return "waits for a lock of which nobody says who has it";
      case Verdict::kJoin:
        return "waits for the end of " + (holder.empty() ? "a thread" : holder);
      case Verdict::kCondition:
        return "waits for a condition";
      case Verdict::kSemaphore:
        return "waits for a semaphore";
      case Verdict::kSleep:
        return "sleeps";
      default:
        return "waits in " + wait.call;
    }
  }

  const Snapshot& snapshot_;
  const Look& first_;
  const Look& second_;
  int64_t betweenNs_;
};

// ---- the whole

void noteNames(const Look& look, Snapshot& snapshot) {
  for (const auto& [tid, detail] : look.details) {
    snapshot.names.emplace_back(tid, detail.name);
  }
}

// What both looks show alike.
void noteWaits(const Look& first, const Look& second, Snapshot& snapshot) {
  std::vector<Wait> agreed;
  for (const auto& [tid, wait] : second.waits) {
    snapshot.waits.push_back(wait);
    const Wait* earlier = find(first.waits, tid);
    if (earlier != nullptr && *earlier == wait) {
      agreed.push_back(wait);
    }
  }
  snapshot.deadlocks = cyclesOf(agreed);
}

bool isSame(const timespec& one, const timespec& other) {
  return one.tv_sec == other.tv_sec && one.tv_nsec == other.tv_nsec;
}

bool hasBeatenSince(const Look& first, const Beat& beat) {
  return std::any_of(first.watch.begin(), first.watch.end(), [&beat](const Beat& earlier) {
    return earlier.thread.slot == beat.thread.slot && earlier.thread.tid == beat.thread.tid &&
           !isSame(earlier.at, beat.at);
  });
}

}  // namespace

Snapshot inspect(const Target& target, const Library& library, const NameOfCode& nameOfCode,
                 std::chrono::milliseconds betweenLooks) {
  const Looker looker(target, library, nameOfCode);
  const Look first = looker.look();
  if (target.isCore()) {
    betweenLooks = {};
  }
  const auto start = std::chrono::steady_clock::now();
  std::this_thread::sleep_for(betweenLooks);
  const Look second = target.isCore() ? first : looker.look(first);
  const auto between =
      target.isCore() ? std::chrono::nanoseconds{} : std::chrono::steady_clock::now() - start;
  // Else nobody would seem to be watched.
  if (!isThere(target, library)) {
    throw Mistake(target.isCore() ? "the watch is not in the core, which may be cut off"
                                  : "the process has ended meanwhile, or runs another program");
  }

  Snapshot snapshot;
  snapshot.process = readProcess(target, library, second.at);
  for (const Beat& beat : second.watch) {
    snapshot.watched.push_back(beat.thread);
  }
  noteNames(second, snapshot);
  noteWaits(first, second, snapshot);
  const Judge judge(snapshot, first, second, between);
  for (size_t i = 0; i < second.watch.size(); ++i) {
    WatchedThread thread = snapshot.watched[i];
    judge.judge(thread, hasBeatenSince(first, second.watch[i]));
    snapshot.watched[i] = std::move(thread);
  }
  return snapshot;
}

}  // namespace qurn::inspect
