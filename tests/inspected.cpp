// inspected SECONDS PERIOD_MS [hard|mainless|PLACE]: a thread for each way to be stuck, each
// registered under the name of its place with thresholds of so many seconds; at PLACE the third one
// is a second, which a hook deals with. Prints the truth, a line each: "NAME TID VERDICT HOLDER",
// then "ready", and "disturbed" whenever a wait is interrupted; "mainless" ends the main thread
// then.
#include <link.h>
#include <poll.h>
#include <qurnadapt/qurnadapt.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/select.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <latch>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "support/ways_to_wait.h"

namespace {

uint32_t g_seconds = 1000;
std::string g_dealtWith;
std::mutex g_tidsMutex;
std::map<std::string, pid_t> g_tids;

[[gnu::noinline]] void spin() {
  for (volatile uint64_t turns = 0;;) {
    turns = turns + 1;
  }
}

int holdLoader(dl_phdr_info* /*info*/, size_t /*size*/, void* /*data*/) {
  g_last.count_down();
  waitForEver();
  return 0;
}

void load() {
  g_last.wait();
  dl_iterate_phdr(holdLoader, nullptr);
}

void blockSignals() {
  sigset_t all;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, nullptr);
  waitForEver();
}

// The looks find it in the kernel, each time on another way through.
void vforkAndBeat() {
  FrameDeadloopHandle self = 0;
  Frame_SetHeartbeatToMon(&self, 1000, 1000, 1000);
  for (;;) {
    if (vfork() == 0) {  // NOLINT: what is shown
      usleep(20'000);    // NOLINT: harms nobody but the parent
      _exit(0);
    }
    wait(nullptr);
    Frame_SendHeartbeatToMon(&self);
  }
}

int64_t threadTimeUs() {
  timespec time{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
  return time.tv_sec * 1'000'000 + time.tv_nsec / 1000;
}

// A quarter of the time, whatever else runs; the looks mostly find it asleep.
void spinAndSleep() {
  const sched_param first{.sched_priority = 1};
  if (sched_setscheduler(0, SCHED_FIFO, &first) != 0) {
    spin();
  }
  for (;;) {
    const int64_t start = threadTimeUs();
    while (threadTimeUs() - start < 1000) {
    }
    usleep(3000);
  }
}

void vforkLong() {
  if (vfork() == 0) {                  // NOLINT: what is shown
    prctl(PR_SET_PDEATHSIG, SIGKILL);  // NOLINT: harms nobody but the parent
    waitForEver();
  }
}

// On the processor of a neighbour that is more important.
void starve() {
  cpu_set_t one;
  CPU_ZERO(&one);
  CPU_SET(sched_getcpu(), &one);
  sched_setaffinity(0, sizeof(one), &one);
  std::thread(spin).detach();
  const sched_param none{};
  sched_setscheduler(0, SCHED_IDLE, &none);
  spin();
}

struct Place {
  const char* name;
  const char* verdict;
  const char* holder;
  void (*getStuck)();
};

uint32_t dealWith(FrameDeadloopHandle* /*handle*/, uint64_t /*threadId*/, uint32_t /*elapsedMs*/) {
  std::puts("dealt with");
  return 0;
}

void run(const Place& place) {
  pthread_setname_np(pthread_self(), place.name);
  const bool isDealtWith = g_dealtWith == place.name;
  FrameDeadloopHandle self = 0;
  const uint32_t seconds = isDealtWith ? 1 : g_seconds;
  Frame_SetHeartbeatToMon(&self, seconds, seconds, seconds);
  Frame_RegDeadloopInfoHook(&self, dealWith);
  {
    const std::scoped_lock lock(g_tidsMutex);
    g_tids[place.name] = gettid();
  }
  place.getStuck();
}

void beat() {
  FrameDeadloopHandle self = 0;
  Frame_SetHeartbeatToMon(&self, 1000, 1000, 1000);
  for (;;) {
    usleep(10'000);
    Frame_SendHeartbeatToMon(&self);
  }
}

void joinOne() {
  static const Place kJoined{"joined", "", "", [] { pthread_mutex_lock(&g_ring[5]); }};
  pthread_mutex_lock(&g_ring[5]);
  std::thread(run, kJoined).join();
}

// Of whom the watch knows nothing.
void waitForOutsider() {
  static std::latch taken{1};
  std::thread([] {
    pthread_setname_np(pthread_self(), "outsider");
    {
      const std::scoped_lock lock(g_tidsMutex);
      g_tids["outsider"] = gettid();
    }
    pthread_mutex_lock(&g_ring[7]);
    taken.count_down();
    waitForEver();
  }).detach();
  taken.wait();
  pthread_mutex_lock(&g_ring[7]);
}

constexpr Place kPlaces[] = {
    {"keeper", "syscall", "-", keep},
    {"normal", "mutex", "keeper", lockMutex<0>},
    {"recursive", "mutex", "keeper", lockMutex<1>},
    {"checking", "mutex", "keeper", lockMutex<2>},
    {"timed", "mutex", "keeper", pthread_rejoin_free_rwlock_cond},
    {"inheriting", "mutex", "keeper", lockMutex<4>},
    {"robust", "mutex", "keeper", lockMutex<5>},
    {"two_a", "mutex", "two_b", lockInTurn<0, 1, g_two>},
    {"two_b", "mutex", "two_a", lockInTurn<1, 0, g_two>},
    {"three_a", "mutex", "three_b", lockInTurn<2, 3, g_three>},
    {"three_b", "mutex", "three_c", lockInTurn<3, 4, g_three>},
    {"three_c", "mutex", "three_a", lockInTurn<4, 2, g_three>},
    {"itself", "mutex", "itself", lockTwice},
    {"joiner", "join", "joined", joinOne},
    {"joined", "mutex", "joiner", nullptr},
    {"outsiders", "mutex", "outsider", waitForOutsider},
    {"read_written", "rwlock", "keeper", [] { pthread_rwlock_rdlock(&g_written); }},
    {"write_written", "rwlock", "keeper", [] { pthread_rwlock_wrlock(&g_written); }},
    {"robust_timed", "mutex", "keeper", lockRobustTimed},
    {"write_read", "rwlock", "-", [] { pthread_rwlock_wrlock(&g_read); }},
    {"once", "lock", "-", [] { pthread_once(&g_once, waitForEver); }},
    {"future", "lock", "-", [] { std::promise<int>().get_future().wait(); }},
    {"future_timed", "lock", "-", waitForFuture},
    {"condition", "condition", "-", [] { waitForCondition(tomorrow()); }},
    {"waker", "syscall", "-", wakeAndKeepMutex},
    {"woken", "mutex", "waker", waitForWaker},
    {"own", "lock", "-", [] { waitForCondition({}), waitForOwnLock(); }},
    {"left", "mutex", "-",
     [] { std::thread(pthread_mutex_lock, &g_ring[6]).join(), pthread_mutex_lock(&g_ring[6]); }},
    {"semaphore", "semaphore", "-", waitForSemaphore},
    {"pipe", "syscall", "-", readPipe},
    {"accept", "syscall", "-", acceptSocket},
    {"nanosleep", "sleep", "-", [] { sleep(86400); }},
    {"poll", "sleep", "-", [] { ppoll(nullptr, 0, nullptr, nullptr); }},
    {"select", "sleep", "-", [] { select(0, nullptr, nullptr, nullptr, nullptr); }},
    {"timer", "sleep", "-", [] { readFrom(timerfd_create(CLOCK_MONOTONIC, 0)); }},
    {"epoll", "syscall", "-", waitForEvent},
    {"sigtimedwait", "syscall", "-", waitForSignal},
    {"blocker", "syscall", "-", blockSignals},
    {"beating", "working", "-", beat},
    {"loop", "loop", "-", spin},
    {"loader", "syscall", "-", [] { dl_iterate_phdr(holdLoader, nullptr); }},
    {"loading", "mutex", "loader", load},
    {"paging", "paging", "-", touchMissingPage},
    {"ended", "ended", "-", [] {}},
    {"\033[\u202E\xFF\"", "syscall", "-", waitForEver},  // NOLINT: hostile
    // From here on for "hard" only.
    {"vfork", "uninterruptible", "-", vforkLong},
    {"busy", "loop", "-", spinAndSleep},
    {"vforking", "working", "-", vforkAndBeat},
    {"starved", "starved", "-", starve},
};
constexpr ptrdiff_t kHard = 4;

// Whether nobody runs of those who wait once they are where they belong.
bool everybodyWaits(const std::vector<Place>& places) {
  const std::set<std::string> runners{"loop", "starved", "working", "ended"};
  const std::scoped_lock lock(g_tidsMutex);
  return std::ranges::all_of(places, [&](const Place& place) {
    std::ifstream file("/proc/self/task/" + std::to_string(g_tids[place.name]) + "/stat");
    std::string stat;
    std::getline(file, stat);
    return runners.contains(place.verdict) || stat.find(") R ") == std::string::npos;
  });
}

}  // namespace

int main(int argc, char** argv) {
  const std::string third = argc > 3 ? argv[3] : "";
  g_seconds = static_cast<uint32_t>(std::strtoul(argv[1], nullptr, 10));
  g_dealtWith = third;
  prctl(PR_SET_PTRACER, PR_SET_PTRACER_ANY);
  const auto period = static_cast<uint32_t>(std::strtoul(argv[2], nullptr, 10));
  FrameSetDeadloopPeriodDelay(period);
  FRAME_KeepAliveProcSet(
      period, [](void*) -> uint32_t { return 0; }, nullptr);
  if (FRAME_MntInit() != 0) {
    return 1;
  }
  std::vector<Place> places(kPlaces, std::end(kPlaces) - (third == "hard" ? 0 : kHard));
  std::erase_if(places, [](const Place& place) {
    return place.getStuck == touchMissingPage && g_faults < 0;
  });
  std::vector<std::thread> threads;  // which keep their ids, ended or not
  for (const Place& place : places) {
    if (place.getStuck != nullptr) {
      threads.emplace_back(run, place);
    }
    if (threads.size() == 1) {
      g_kept.wait();
    }
  }
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  for (int calm = 0; calm < 13;) {  // everybody is there, and has been silent for a second
    usleep(100'000);
    calm = everybodyWaits(places) ? calm + 1 : 0;
  }
  const std::scoped_lock lock(g_tidsMutex);
  for (const auto& [name, verdict, holder, getStuck] : places) {
    std::printf("%s %d %s %d\n", name, g_tids[name], verdict, g_tids[holder]);
  }
  std::puts("ready");
  if (third == "mainless") {
    syscall(SYS_exit, 0);
  }
  waitForEver();
}
