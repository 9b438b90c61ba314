// Every call that the library makes to the system or the platform and that can fail does so once,
// one after the other, in a child process of its own: the scenario ends with the line and the code
// that the failure has, nothing stays held, and the same scenario works the next time.
#include <sys/wait.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <set>
#include <string_view>

#include "support/faults.h"
#include "support/silent_thread.h"

namespace {

// Exit status: the library made fewer calls.
constexpr int kNothingFailed = 200;

// What may come of a failing call: the scenario's code, and what the errors then say, all of it.
struct Outcome {
  std::string_view call;
  uint32_t code;
  const char* says[3] = {};
};

struct Scenario {
  void (*prepare)();
  uint32_t (*run)();                    // 0 when all went well
  std::set<std::string_view> harmless;  // these may fail, and all goes well
  std::vector<Outcome> outcomes;
};

size_t entriesOf(const char* path) {
  return static_cast<size_t>(std::distance(std::filesystem::directory_iterator(path), {}));
}

// ---- scenarios

void prepareStartup() {
  configure(
      "exception: {signalIgnore: [SIGHUP]}\nwatchDog: {watchDogType: notify, watchDogTimeout: 8s}");
}

// Until the detection thread waits for its first tick, or, the first time, has given up.
uint32_t startUp() {
  static int starts = 0;
  static bool runs = false;
  const bool mayGiveUp = starts++ == 0;
  const int waits = fault::calls("poll");
  const size_t threads = entriesOf("/proc/self/task");
  const uint32_t ret = FRAME_MntInit();
  if (ret == QURN_OK && !runs) {
    EXPECT_TRUE(eventually([=] {
      runs = fault::calls("poll") > waits;
      return runs || (mayGiveUp && entriesOf("/proc/self/task") == threads);
    }));
  }
  return ret;
}

uint32_t useTheMonitor() {
  FrameDeadloopHandle self = 0;
  const auto hook = [](FrameDeadloopHandle*, uint64_t, uint32_t) -> uint32_t { return 0; };
  pthread_setname_np(pthread_self(), "swept");
  Frame_RegThreadDeadloopHook(nullptr);
  return std::max({Frame_SetHeartbeatToMon(&self, 1, 2, 3), Frame_SetHeartbeatToMon(&self, 4, 5, 6),
                   Frame_SendHeartbeatToMon(&self), Frame_RegDeadloopInfoHook(&self, hook),
                   Frame_SetHeartExceptionPolicy(self, 1),
                   FRAME_UpdateDeadloopThresholdByName("swept", 1, 1, 1),
                   FrameSetDetectSwitch(self, 0), Frame_StopHeartbeatToMon(&self)});
}

std::unique_ptr<SilentThread> g_stuck;
bool g_hooked = false;

// A thread that ended, and behind it one whose silence is to be reported and handled.
void prepareTick() {
  frozen_clock::start();
  FrameDeadloopInit();
  auto ended = std::make_unique<SilentThread>();
  g_stuck.reset();  // the last run's
  g_stuck = std::make_unique<SilentThread>();
  g_hooked = false;
  const auto hook = [](FrameDeadloopHandle*, uint64_t, uint32_t) -> uint32_t {
    g_hooked = true;
    return 0;
  };
  Frame_RegDeadloopInfoHook(g_stuck->slot(), hook);
  ended.reset();
  frozen_clock::advance(1000);
  fault::arm("KEM_TaskStackInfoGet", EIO, 0, 1000);  // so that the memory map is scanned
}

uint32_t tick() {
  for (int i = 0; i < 3 && !g_hooked; ++i) {
    FrameDeadloopDetectCallback(nullptr);
    for (int ms = 0; ms < 200 && FrameGetDeadloopStatus() == FRAME_DEADLOOP_STATUS_SIGNALED; ++ms) {
      usleep(1000);
    }
  }
  return g_hooked ? QURN_OK : QURN_FAILED;
}

uint32_t useHandleTable() {
  NbbHndTbl table{};
  uint32_t failed = QURN_FAILED;
  if (nbb_handle_initialize() != 0 && nbb_handle_table_initialize(&table, 0, 8, 8, 16) != 0) {
    std::set<uint32_t> handles;
    for (int i = 0; i < 30; ++i) {
      handles.insert(nbb_create_handle_in_table(&table, &table));
    }
    failed = handles.size() != 30 || handles.erase(0) != 0 ? 1 : 0;
    for (const uint32_t handle : handles) {
      failed |= nbb_validate_handle_in_table(&table, handle) == &table ? 0 : 1;
      nbb_destroy_handle_in_table(&table, handle);
      failed |= nbb_validate_handle_in_table(&table, handle) == nullptr ? 0 : 1;
    }
  }
  nbb_handle_table_terminate(&table);
  NbbHandleTerminate();
  return failed;
}

uint32_t useLegacyCalls() {
  ZotHandleRecord* module = nullptr;
  if (const uint32_t ret = ZOT_HandleInitialize(nullptr, 1, &module); ret != QURN_OK) {
    return ret;
  }
  const auto handle = reinterpret_cast<uintptr_t>(module);
  void* block = ZOT_Malloc_F(handle, 1, 64, "sweep", 1);
  uint32_t failed = block == nullptr ? 1 : ZOT_Free_F(block, "sweep", 2);
  ZotUptimeRecord* since = ZOT_StartuptimeInit();
  ZotUptimeMs uptime{};
  failed |= since == nullptr ? 1 : ZOT_CalUptime(since, &uptime);
  ZOT_Free_F(since, "sweep", 3);
  ZotSystime local{};
  uint32_t isDst = 0;
  failed |= ZOT_Local_SystimeGet(&local, &isDst);
  setenv("SWEEP", "17", 1);
  uint32_t value = 0;
  failed |= ZotGetEnvUINT32("SWEEP", &value);
  if (ZOT_HandleFinalize(module) != QURN_OK) {
    failed = ZOT_HandleFinalize(module) == QURN_OK ? 1 : QURN_FAILED;
  }
  return failed;
}

// ---- one failure after the other, each in a child

bool isSaid(const char* text) {
  const auto says = [&](const std::string& line) { return line.find(text) != line.npos; };
  return text == nullptr || std::ranges::any_of(recorded::texts(100), says);
}

bool isForeseen(const Scenario& scenario, std::string_view call, uint32_t code) {
  return (code == QURN_OK && scenario.harmless.contains(call)) ||
         std::ranges::any_of(scenario.outcomes, [&](const Outcome& one) {
           return one.call == call && one.code == code && std::ranges::all_of(one.says, isSaid);
         });
}

// Says to standard error what is wrong, as the log does; the exit status tells the parent.
[[noreturn]] void failOnce(const Scenario& scenario, int number) {
  alarm(20);  // a lock that stays held
  scenario.prepare();
  recorded::forget();
  fault::sweep(number);
  const uint32_t code = scenario.run();
  const char* failed = fault::sweep(0);
  const auto again = [&] {
    scenario.prepare();
    return scenario.run() == QURN_OK;
  };
  const auto held = [] { return std::pair(entriesOf("/proc/self/fd"), recorded::blocksHeld()); };
  const char* wrong = nullptr;
  // Another thread's line may come a moment later.
  if (failed == nullptr ? code != QURN_OK
                        : !eventually([&] { return isForeseen(scenario, failed, code); })) {
    wrong = "is not foreseen";
  } else if (!again()) {
    wrong = "and then it does not work the next time";
  } else if (const auto before = held(); !again() || held() > before) {
    wrong = "and then something stays held";
  }
  if (wrong != nullptr) {
    fprintf(stderr, "%s: code %#x, %s\n", failed == nullptr ? "no failure" : failed, code, wrong);
  }
  _exit((failed == nullptr ? kNothingFailed : 0) + (wrong == nullptr ? 0 : 1));
}

void sweep(const Scenario& scenario) {
#if defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "it starts threads of its own in each child";
#endif
  int number = 1;
  for (int status = 0; status < kNothingFailed; ++number) {
    const pid_t child = fork();
    if (child == 0) {
      failOnce(scenario, number);
    }
    int ended = 0;
    waitpid(child, &ended, 0);
    status = WIFEXITED(ended) ? WEXITSTATUS(ended) : 1000 + WTERMSIG(ended);
    EXPECT_EQ(status % kNothingFailed, 0) << "call number " << number;
  }
  EXPECT_GT(number, 6);
}

// A lock that cannot be taken is done without, as the interface has it: with one thread that is
// safe.
TEST(FaultSweep, Startup) {
  const char* const notAdded = "Frame deadloop proc entry, add event to epoll fd unsuccessfully.";
  sweep({prepareStartup,
         startUp,
         // The process has no name, or the thread none, or an initial time or lock is as it was, or
         // the old signal action stays unknown.
         {"pthread_mutex_lock", "pthread_mutex_unlock", "pthread_rwlock_rdlock",
          "pthread_rwlock_wrlock", "memset_s", "snprintf_s", "open", "read", "close", "prctl",
          "clock_gettime", "pthread_mutex_init", "sigaction"},
         {// Start-up stops.
          {"TovYamlLoadFile", QURN_FAILED, "Exception operation, cannot get yaml handle.",
           "Frame exception operation unsuccessfully, ret=0xffffffff."},
          {"KEM_SigcapHandleReg", QURN_FAILED,
           "Signal ignore operation, kem reg unsuccessfully. (ret = 5)"},
          {"TovYamlLoadFile", QURN_FAILED, "Keep alive operation, cannot get yaml handle.",
           "Frame keep alive operation unsuccessfully, ret=0xffffffff."},
          {"TovStrToMilliSeconds", 7, "watchDogTimeout parse unsuccessfully. (value = 8s)",
           "Keep alive paramter init unsuccessfully.",
           "Frame keep alive operation unsuccessfully, ret=0x7."},
          {"TOV_DeadLoopRegCapability", 0x77,
           "Frame register deadloop capability unsuccessfully, ret=0x77."},
          {"sigaction", QURN_FAILED, "Deadloop dfx init fail, set sig action fail, ret = -1.",
           "Deadloop init unsuccessfully, ret=0xffffffff."},
          {"TOV_MemAllocF", QURN_FAILED, "Deadloop dfx init fail, memory alloc fail.",
           "Deadloop dfx init fail, stack memory alloc fail.",
           "Deadloop init unsuccessfully, ret=0xffffffff."},
          {"pthread_create", QURN_FAILED, "Frame period task init unsuccessfully. (ret = 5)",
           "Period task create unsuccessfully, ret=0xffffffff."},
          // The detection thread ends.
          {"epoll_create", QURN_OK, "Frame deadloop proc entry, epoll create unsuccessfully."},
          {"TOV_MemAllocF", QURN_OK,
           "Frame timer control init, control handle malloc unsuccessfully."},
          {"timerfd_create", QURN_OK, "Timer fd create unsuccessfully, (errno = 5)."},
          {"timerfd_settime", QURN_OK, "Timer fd set time unsuccessfully, (errno = 5)."},
          {"TOV_MemAllocF", QURN_OK, "Timer node malloc unsuccessfully, no enough memory."},
          {"TOV_MemAllocF", QURN_OK, "Frame mnt create event proc, memory malloc unsuccessfully.",
           "Frame deadloop proc entry, reg set and event proc unsuccessfully."},
          {"TOV_MemAllocF", QURN_OK, "Frame mnt epoll control, alloc memory unsuccessfully.",
           notAdded},
          {"epoll_ctl", QURN_OK, "Frame mnt operate epoll event unsuccessfully.(errno = 5)",
           notAdded},
          // Its loop goes on.
          {"poll", QURN_OK, "Epoll wait unsuccessfully. (errno = 5)"}}});
}

TEST(FaultSweep, Monitor) {
  constexpr const char* noTime = "get current time unsuccessfully. (errno: 5)";
  sweep(
      {[] {},
       useTheMonitor,
       {"pthread_rwlock_rdlock", "pthread_rwlock_wrlock"},
       {{"pthread_mutex_lock", QURN_OK, "Frame task deadloop lock mistake, errno(5)."},
        {"pthread_mutex_unlock", QURN_OK, "Frame task deadloop unlock mistake errno(5)."},
        {"prctl", QURN_FAILED, "monitor task name set unsuccessfully. (errno: 5)"},
        {"clock_gettime", QURN_FAILED, noTime, "Frame add monitor task info, task key info set"},
        {"clock_gettime", QURN_FAILED, noTime, "Frame set monitor task info, task key info update"},
        {"clock_gettime", QURN_FAILED, noTime, "Frame update inteval by name, key info update"},
        {"clock_gettime", QURN_FAILED, "update detect time unsuccessfully. (errno: 5)"},
        {"memset_s", QURN_FAILED, "task info reset unsuccessfully. (errno: 5)"}}});
}

TEST(FaultSweep, Tick) {
  sweep(
      {prepareTick,
       tick,
       // The capture lacks its copy of the stack, or the report its names, a time is as it was, or
       // the handler is put in place once more.
       {"pthread_rwlock_rdlock", "memset_s", "snprintf_s", "KEM_TaskStackInfoGet", "open", "read",
        "lseek", "close", "clock_gettime", "sigaction"},
       {{"pthread_mutex_lock", QURN_OK, "Frame task deadloop lock mistake, errno(5)."},
        {"pthread_mutex_unlock", QURN_OK, "Frame task deadloop unlock mistake errno(5)."},
        // The node that they concern waits for the next tick.
        {"clock_gettime", QURN_OK, "Frame report keep alive, get clock time unsuccessfully."},
        {"clock_gettime", QURN_OK, "Frame get task elapsed time, current time get unsuccessfully.",
         "Task deadloop entry, task elapsed time error. (-1)"},
        // A thread that cannot be looked for counts as ended.
        {"snprintf_s", QURN_FAILED},
        {"opendir", QURN_OK, "Check thread exist, tid"},
        {"opendir", QURN_FAILED, "Check thread exist, tid"},
        {"closedir", QURN_FAILED, "Check thread exist, tid dir close unsuccessfully. (errno: 5)"},
        {"pthread_kill", QURN_FAILED, "Thread deadloop send signal unsuccessfully."},
        {"backtrace_symbols", QURN_OK,
         "Frame dump stack unsuccessfully, get symbols unsuccessfully."}}});
}

TEST(FaultSweep, HandleTable) {
  sweep({[] {},
         useHandleTable,
         {"pthread_mutex_lock", "pthread_mutex_unlock", "memset_s", "KEM_MutexLock"},
         {{"KEM_MutexInit", QURN_FAILED, "Mutex lock unsuccessfully:-1"},
          {"KEM_MutexLock", QURN_FAILED, "Mutex lock unsuccessfully:7"},
          {"KEM_MemAlloc_F", QURN_FAILED},  // no table
          {"KEM_MemAlloc_F", 1}}});         // a handle was refused
}

TEST(FaultSweep, LegacyCalls) {
  sweep({[] {},
         useLegacyCalls,
         {"pthread_mutex_lock", "pthread_mutex_unlock", "pthread_rwlock_rdlock", "memset_s",
          "localtime_r", "mktime"},
         {{"snprintf_s", QURN_FAILED, "copy mod id unsuccessfully"},
          {"KEM_HandleInitialize", QURN_FAILED, "kelva handle init unsuccessfully. (ret = 0x7)"},
          {"KEM_MemAlloc_F", QURN_FAILED},  // no module
          {"KEM_MemAlloc_F", 1},            // no block
          {"memset_s", QURN_FAILED},
          {"KEM_HandleFinalize", 1},
          {"KEM_CpuTick2Ms", QURN_FAILED},
          {"gmtime_r", 0x16, "Gmt to local time unsuccessfully, gmt time invalid."},
          {"strdup", QURN_FAILED}}});
}

}  // namespace
