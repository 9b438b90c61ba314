#include "monitor_model.h"

#include <dirent.h>
#include <dlfcn.h>
#include <pthread.h>
#include <qurnadapt/capture.h>
#include <qurnadapt/platform.h>
#include <qurnadapt/report.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <ucontext.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>

namespace {

constexpr size_t kThreads = 70;  // more than there are slots
constexpr size_t kNames = 40;

std::vector<PretendedThread> g_threads;
const PretendedThread* g_acting = nullptr;  // whom the library takes the caller for
int64_t g_now = 1'000'000;                  // milliseconds
std::vector<std::string> g_said;
uint32_t g_lastTid = 1000;

__attribute__((format(printf, 1, 2))) std::string line(const char* format, ...) {
  std::array<char, 512> text{};
  va_list args;
  va_start(args, format);
  std::vsnprintf(text.data(), text.size(), format, args);
  va_end(args);
  return text.data();
}

template <typename Function>
Function* real(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

std::string told(const char* who, uint64_t threadId, uint32_t tid, uint32_t elapsed,
                 uint64_t more) {
  return line("%s: %llu %u %u %llu", who, static_cast<unsigned long long>(threadId), tid, elapsed,
              static_cast<unsigned long long>(more));
}

uint32_t threadHook(FrameDeadloopHandle* handle, uint64_t threadId, uint32_t elapsedMs) {
  g_said.push_back(told("hook", threadId, 0, elapsedMs, *handle));
  return 0;
}
void warningHook(uint64_t threadId, uint32_t tid, uint32_t elapsedMs, uint32_t policy) {
  g_said.push_back(told("warning", threadId, tid, elapsedMs, policy));
}
void processHook(uint64_t threadId, uint32_t tid, uint32_t elapsedMs, uint32_t policy) {
  g_said.push_back(told("process", threadId, tid, elapsedMs, policy));
}

bool isAlive(uint32_t tid) {
  return std::any_of(g_threads.begin(), g_threads.end(), [tid](const PretendedThread& thread) {
    return thread.tid == tid && !thread.ended;
  });
}

}  // namespace

// ---- the pretence

extern "C" {

pthread_t pthread_self() noexcept {
  static auto* const next = real<pthread_t()>("pthread_self");
  return g_acting != nullptr ? g_acting->id : next();
}

// Reads as many words as any system call has, whether they were given or not.
__attribute__((no_sanitize_address)) long syscall(long number, ...) noexcept {
  if (g_acting != nullptr && number == SYS_gettid) {
    return g_acting->tid;
  }
  std::array<long, 6> words{};
  va_list args;
  va_start(args, number);
  for (long& word : words) {
    word = va_arg(args, long);
  }
  va_end(args);
  static auto* const next = real<long(long, ...)>("syscall");
  return next(number, words[0], words[1], words[2], words[3], words[4], words[5]);
}

int prctl(int option, ...) noexcept {
  va_list args;
  va_start(args, option);
  void* argument = va_arg(args, void*);
  va_end(args);
  if (g_acting != nullptr && option == PR_GET_NAME) {
    std::strcpy(static_cast<char*>(argument), g_acting->name.c_str());
    return 0;
  }
  static auto* const next = real<int(int, ...)>("prctl");
  return next(option, argument, 0, 0, 0);
}

int tgkill(pid_t /*process*/, pid_t tid, int /*sig*/) {
  errno = ESRCH;
  return isAlive(static_cast<uint32_t>(tid)) ? 0 : -1;
}

int pthread_kill(pthread_t /*thread*/, int /*sig*/) noexcept { return 0; }

DIR* opendir(const char* path) {
  static auto* const next = real<DIR*(const char*)>("opendir");
  const char* task = std::strstr(path, "/task/");
  if (task == nullptr) {
    return next(path);
  }
  return isAlive(static_cast<uint32_t>(std::strtoul(task + 6, nullptr, 10))) ? next("/") : nullptr;
}

int clock_gettime(clockid_t clock, timespec* now) noexcept {
  if (clock == CLOCK_MONOTONIC_COARSE) {
    *now = {g_now / 1000, (g_now % 1000) * 1'000'000};
    return 0;
  }
  static auto* const next = real<int(clockid_t, timespec*)>("clock_gettime");
  return next(clock, now);
}

void LOG_InnerPrint(uint32_t /*moduleId*/, const char* /*file*/, uint32_t /*fileLen*/,
                    const char* /*func*/, uint32_t /*funcLen*/, uint32_t /*line*/, uint32_t level,
                    const char* format, ...) {
  std::array<char, 512> text{};
  va_list args;
  va_start(args, format);
  std::vsnprintf(text.data(), text.size(), format, args);
  va_end(args);
  g_said.push_back(std::to_string(level) + " " + text.data());
}

// The report's own lines, which are not the monitor's.
void LOG_InnerPrintUnsuppress(uint32_t /*moduleId*/, const char* /*file*/, uint32_t /*fileLen*/,
                              const char* /*func*/, uint32_t /*funcLen*/, uint32_t /*line*/,
                              uint32_t /*level*/, const char* /*format*/, ...) {}

uint32_t KEM_ExceptCallStackGetEx(void* /*context*/, uint32_t /*most*/, uint32_t /*option*/,
                                  uint64_t* /*addresses*/, uint32_t* depth) {
  *depth = 0;
  return 0;
}

}  // extern "C"

// ---- the model

void MonitorModel::restart(Node& node, const Thresholds& seconds, int64_t now) {
  for (size_t i = 0; i < seconds.size(); ++i) {
    node.thresholdMs[i] = seconds[i] < 4294967 ? seconds[i] * 1000 : 0xFFFFFFFF;
  }
  node.since = now;
  node.level = 0;
}

uint32_t MonitorModel::refuse(uint32_t code, std::initializer_list<const char*> lines) {
  said.insert(said.end(), lines.begin(), lines.end());
  return code;
}

bool MonitorModel::areValid(const Thresholds& seconds) {
  const auto& [first, second, third] = seconds;
  if (first != 0 && first <= second && second <= third) {
    return true;
  }
  said.push_back(
      line("100 Frame task deadloop detect, threshold invalid. (first threshold = %u, "
           "second threshold = %u, third threshold = %u)",
           first, second, third));
  return false;
}

uint32_t MonitorModel::enter(const PretendedThread& thread, const Thresholds& seconds,
                             int64_t now) {
  if (!areValid(seconds)) {
    return refuse(QURN_INVALID_ARGUMENT,
                  {"100 Set heartbeat param unsuccessfully, param invalid."});
  }
  auto node = std::find_if(nodes_.begin(), nodes_.end(),
                           [&](const Node& one) { return one.used && one.id == thread.id; });
  if (node != nodes_.end() && node->tid == thread.tid) {
    restart(*node, seconds, now);
    return QURN_OK;
  }
  if (node == nodes_.end()) {
    node = std::find_if(nodes_.begin(), nodes_.end(), [](const Node& one) { return !one.used; });
  }
  if (node == nodes_.end()) {
    return refuse(QURN_FAILED,
                  {"100 Frame set monitor task info, monitor task out of bounds. (max = 64)",
                   "100 Set heartbeat param unsuccessfully, set param unsuccessfully."});
  }
  *node = Node{.used = true, .id = thread.id, .tid = thread.tid, .name = thread.name, .on = 1};
  restart(*node, seconds, now);
  return QURN_OK;
}

uint32_t MonitorModel::beat(const PretendedThread& thread, uint64_t slot, int64_t now) {
  if (slot >= nodes_.size()) {
    return refuse(QURN_INVALID_ARGUMENT,
                  {"100 Frame task deadloop detect, handle invalid.",
                   "100 Send heartbeat unsuccessfully, input handle invalid."});
  }
  if (!nodes_[slot].used || nodes_[slot].id != thread.id) {
    return refuse(QURN_INVALID_ARGUMENT, {"100 Send heartbeat unsuccessfully, handle not match."});
  }
  nodes_[slot].since = now;
  return QURN_OK;
}

uint32_t MonitorModel::leave(const PretendedThread& thread, uint64_t slot) {
  if (slot >= nodes_.size()) {
    return refuse(QURN_INVALID_ARGUMENT,
                  {"100 Frame task deadloop detect, handle invalid.",
                   "100 Stop heartbeat unsuccessfully, input handle invalid."});
  }
  if (!nodes_[slot].used || nodes_[slot].id != thread.id) {
    return refuse(QURN_FAILED, {"100 Frame remove monitor task info, handle not match.",
                                "100 Stop heartbeat unsuccessfully, monitor task not exist."});
  }
  nodes_[slot] = {};
  return QURN_OK;
}

uint32_t MonitorModel::setHook(uint64_t slot, bool hook) {
  if (slot >= nodes_.size()) {
    return refuse(QURN_INVALID_ARGUMENT,
                  {"100 Frame task deadloop detect, handle invalid.",
                   "100 Register task deadloop hook, input handle invalid."});
  }
  if (!nodes_[slot].used) {
    return refuse(QURN_FAILED,
                  {"100 Register task deadloop hook, deadloop monitor node not exist."});
  }
  nodes_[slot].hook = hook;
  return QURN_OK;
}

uint32_t MonitorModel::setPolicy(uint64_t slot, uint32_t policy) {
  if (slot >= nodes_.size() || policy > 1) {
    return refuse(QURN_INVALID_ARGUMENT, {"100 Set deadloop exception policy, parameter invalid."});
  }
  if (!nodes_[slot].used) {
    return refuse(QURN_FAILED,
                  {"100 Set deadloop exception policy, deadloop monitor node not exist."});
  }
  nodes_[slot].policy = policy;
  return QURN_OK;
}

uint32_t MonitorModel::tune(const std::string& name, const Thresholds& seconds, int64_t now) {
  if (!areValid(seconds)) {
    return refuse(QURN_INVALID_ARGUMENT, {"100 Frame update inteval by name, param invalid."});
  }
  const auto node = std::find_if(nodes_.begin(), nodes_.end(),
                                 [&](const Node& one) { return one.used && one.name == name; });
  if (node == nodes_.end()) {
    return refuse(QURN_FAILED, {"100 Frame update inteval by name, task not found."});
  }
  restart(*node, seconds, now);
  return QURN_OK;
}

uint32_t MonitorModel::switchWatch(uint64_t slot, uint8_t on, int64_t now) {
  if (slot >= nodes_.size()) {
    return refuse(QURN_INVALID_ARGUMENT,
                  {"100 Frame deadloop set detect switch, input handle invalid."});
  }
  Node& node = nodes_[slot];
  if (!node.used) {
    return refuse(QURN_FAILED, {"100 Frame deadloop set detect switch, task info not exist."});
  }
  if ((node.on != 0) != (on != 0)) {
    node.on = on;
    node.since = now;
  }
  return QURN_OK;
}

bool MonitorModel::isEnded(uint32_t tid, const std::vector<PretendedThread>& threads) {
  for (const PretendedThread& thread : threads) {
    if (thread.tid == tid && !thread.ended) {
      return false;
    }
  }
  said.push_back(line("100 Check thread exist, tid %u not exist.", tid));
  return true;
}

bool MonitorModel::isReleased(Node& node, const std::vector<PretendedThread>& threads) {
  if (!isEnded(node.tid, threads)) {
    return false;
  }
  said.push_back(
      line("40 Task deadloop entry, task[%s:%u] terminated.", node.name.c_str(), node.tid));
  node = {};
  return true;
}

// A thread that was to be captured and is there no more sets the monitor free again.
void MonitorModel::withdraw(const std::vector<PretendedThread>& threads) {
  Node& node = nodes_[fatalSlot_];
  const bool same = node.used && node.tid == signalledTid_;
  if (same ? isReleased(node, threads) : isEnded(signalledTid_, threads)) {
    state_ = State::kIdle;
  }
}

// True when the third threshold ends the pass.
bool MonitorModel::climb(uint64_t slot, const std::vector<PretendedThread>& threads,
                         uint32_t elapsed) {
  struct Step {
    const char* level;
    const char* ordinal;
  };
  static constexpr Step kSteps[] = {{"40", "first"}, {"80", "second"}, {"100", "third"}};
  Node& node = nodes_[slot];
  for (unsigned step = 0; step < 3; ++step) {
    if (node.level != step || elapsed < node.thresholdMs[step]) {
      continue;
    }
    if (isReleased(node, threads)) {
      return false;
    }
    said.push_back(
        line("%s Frame task deadloop detect, task [%s:%u] trigger %s threshold "
             "timeout.(elapsed time = %u, first threshold = %u, second threshold = %u, "
             "third threshold = %u)",
             kSteps[step].level, node.name.c_str(), node.tid, kSteps[step].ordinal, elapsed,
             node.thresholdMs[0], node.thresholdMs[1], node.thresholdMs[2]));
    node.level = step + 1;
    if (step == 1 && warningHook) {
      said.emplace_back("80 Frame task deadloop detect, global warn hook start.");
      said.push_back(told("warning", node.id, node.tid, elapsed, node.policy));
      said.emplace_back("80 Frame task deadloop detect, global warn hook end.");
    }
  }
  if (node.level != 3) {
    return false;
  }
  said.push_back(
      line("40 Signal %d send to thread %u.", SIGRTMIN + 2, static_cast<uint32_t>(node.id)));
  state_ = State::kSignalled;
  fatalSlot_ = slot;
  fatalElapsed_ = elapsed;
  signalledTid_ = node.tid;
  return true;
}

void MonitorModel::pass(const std::vector<PretendedThread>& threads, int64_t now) {
  if (state_ != State::kIdle) {
    if (state_ == State::kSignalled) {
      withdraw(threads);
    }
    return;
  }
  for (uint64_t slot = 0; slot < nodes_.size(); ++slot) {
    const Node& node = nodes_[slot];
    if (!node.used || node.on == 0 || node.level == 3) {
      continue;
    }
    const int64_t elapsed = now - node.since;
    if (elapsed < 0) {
      said.push_back(line("100 Task deadloop entry, task elapsed time error. (%d)",
                          static_cast<int>(elapsed)));
    } else if (climb(slot, threads, static_cast<uint32_t>(elapsed))) {
      return;
    }
  }
}

uint64_t MonitorModel::slotOf(uint64_t id) const {
  return static_cast<uint64_t>(
      std::find_if(nodes_.begin(), nodes_.end(),
                   [id](const Node& node) { return node.used && node.id == id; }) -
      nodes_.begin());
}

bool MonitorModel::reportIsDeadly() const {
  const Node& node = nodes_[fatalSlot_];
  return node.level == 3 && !node.hook;
}

void MonitorModel::report() {
  const Node node = nodes_[fatalSlot_];
  state_ = State::kIdle;
  if (node.level != 3) {
    return;
  }
  said.emplace_back("80 Frame task deadloop detect, deadloop process hook start.");
  said.push_back(told("hook", node.id, 0, fatalElapsed_, fatalSlot_));
  said.emplace_back("80 Frame task deadloop detect, deadloop process hook end.");
  if (processHook) {
    said.emplace_back("80 Frame task deadloop detect, deadloop process global hook start.");
    said.push_back(told("process", node.id, node.tid, fatalElapsed_, node.policy));
    said.emplace_back("80 Frame task deadloop detect, deadloop process global hook end.");
  }
}

// ---- both

namespace {

// Runs a call of the library as this thread.
template <typename Call>
auto as(const PretendedThread& thread, Call call) {
  g_acting = &thread;
  const auto result = call();
  g_acting = nullptr;
  return result;
}

PretendedThread newThread(uint64_t number) {
  return {0x7000 + number * 0x100, ++g_lastTid, "t" + std::to_string(number % kNames), false};
}

void handleSignal() {
  ucontext_t context{};
  getcontext(&context);
  siginfo_t info{};
  FrameDeadLoopSignalHandle(SIGRTMIN + 2, &info, &context);
}

MonitorModel::Thresholds thresholdsFrom(uint32_t what) {
  const uint32_t first = what % 5;
  if (what % 61 == 60) {
    return {first, 4294967, 0xFFFFFFFF};
  }
  return {first, first + (what >> 8) % 4, first + (what >> 12) % 8};
}

}  // namespace

MonitorBesideModel::MonitorBesideModel() {
  FrameDeadloopInit();
  Frame_RegThreadDeadloopWarningHook(nullptr);
  Frame_RegThreadDeadloopHook(nullptr);
  g_threads.clear();
  for (uint64_t number = 0; number < kThreads; ++number) {
    g_threads.push_back(newThread(number));
  }
  g_said.clear();
}

// The monitor itself outlives a history, so whoever is in it leaves.
MonitorBesideModel::~MonitorBesideModel() {
  for (const PretendedThread& thread : g_threads) {
    uint64_t slot = model_.slotOf(thread.id);
    as(thread, [&] { return Frame_StopHeartbeatToMon(&slot); });
  }
  if (model_.awaitsCapture()) {
    handleSignal();
  }
  FrameWriteDeadloopInfo();
}

bool MonitorBesideModel::agree(uint32_t answered, uint32_t expected) {
  if (answered != expected) {
    difference_ = line("answers %#x instead of %#x", answered, expected);
  } else if (g_said != model_.said) {
    const auto [is, should] =
        std::mismatch(g_said.begin(), g_said.end(), model_.said.begin(), model_.said.end());
    difference_ = "says \"" + (is == g_said.end() ? "" : *is) + "\" instead of \"" +
                  (should == model_.said.end() ? "" : *should) + "\"";
  }
  g_said.clear();
  model_.said.clear();
  return difference_.empty();
}

std::string MonitorBesideModel::difference() const { return difference_; }

bool MonitorBesideModel::operate(Operation operation, uint32_t who, uint32_t what) {
  PretendedThread& thread = g_threads[who % g_threads.size()];
  // Mostly the thread's own, else any, two of them out of range.
  uint64_t slot = what % 4 != 0 ? model_.slotOf(thread.id) : (what >> 2) % 66;
  const MonitorModel::Thresholds seconds = thresholdsFrom(what);
  const uint32_t first = seconds[0];
  const uint32_t second = seconds[1];
  const uint32_t third = seconds[2];
  switch (operation) {
    case Operation::kEnter: {
      const uint64_t before = slot;
      const bool answersAgree =
          agree(as(thread, [&] { return Frame_SetHeartbeatToMon(&slot, first, second, third); }),
                model_.enter(thread, seconds, g_now));
      const uint64_t own = model_.slotOf(thread.id);
      if (slot != before && slot != own) {
        difference_ = line("is in slot %u", static_cast<unsigned>(slot));
      }
      return answersAgree && difference_.empty();
    }
    case Operation::kBeat:
      return agree(as(thread, [&] { return Frame_SendHeartbeatToMon(&slot); }),
                   model_.beat(thread, slot, g_now));
    case Operation::kLeave:
      return agree(as(thread, [&] { return Frame_StopHeartbeatToMon(&slot); }),
                   model_.leave(thread, slot));
    case Operation::kHook:
      return agree(Frame_RegDeadloopInfoHook(&slot, who % 2 == 0 ? threadHook : nullptr),
                   model_.setHook(slot, who % 2 == 0));
    case Operation::kPolicy:
      return agree(Frame_SetHeartExceptionPolicy(slot, who % 3), model_.setPolicy(slot, who % 3));
    case Operation::kTune:
      return agree(FRAME_UpdateDeadloopThresholdByName(thread.name.c_str(), first, second, third),
                   model_.tune(thread.name, seconds, g_now));
    case Operation::kSwitch:
      return agree(FrameSetDetectSwitch(slot, static_cast<uint8_t>(who % 3)),
                   model_.switchWatch(slot, static_cast<uint8_t>(who % 3), g_now));
    case Operation::kAdvance:
      // Half of the times are where thresholds are.
      g_now += what % 2 == 0 ? (what >> 1) % 6 * 500 : static_cast<int64_t>(what % 1000) - 50;
      return true;
    case Operation::kEnd:
      thread.ended = true;
      return true;
    case Operation::kBegin:
      if (thread.ended) {
        thread = newThread(who % g_threads.size());
      }
      return true;
    case Operation::kTick:
      if (model_.awaitsReport()) {
        if (model_.reportIsDeadly()) {
          slot = model_.fatalSlot();
          agree(Frame_RegDeadloopInfoHook(&slot, threadHook), model_.setHook(slot, true));
        }
        FrameWriteDeadloopInfo();
        model_.report();
      }
      FRAME_TaskDeadloopMonitorEntry();
      model_.pass(g_threads, g_now);
      return agree(0, 0);
    case Operation::kCapture:
      if (model_.awaitsCapture()) {
        handleSignal();
        model_.captured();
      }
      return agree(0, 0);
    case Operation::kHooks:
      model_.warningHook = who % 2 == 0;
      model_.processHook = what % 2 == 0;
      Frame_RegThreadDeadloopWarningHook(model_.warningHook ? warningHook : nullptr);
      Frame_RegThreadDeadloopHook(model_.processHook ? processHook : nullptr);
      return agree(0, 0);
    case Operation::kCount:
      break;
  }
  return true;
}
