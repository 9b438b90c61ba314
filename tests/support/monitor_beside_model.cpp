#include "monitor_beside_model.h"

#include <qurnadapt/capture.h>
#include <qurnadapt/report.h>
#include <ucontext.h>

#include <algorithm>
#include <csignal>

namespace {

constexpr size_t kThreads = 70;  // more than there are slots
constexpr size_t kNames = 40;
uint32_t g_lastTid = 1000;

uint32_t threadHook(FrameDeadloopHandle* handle, uint64_t threadId, uint32_t elapsedMs) {
  world.said.push_back(told("hook", threadId, 0, elapsedMs, *handle));
  return 0;
}
void warningHook(uint64_t threadId, uint32_t tid, uint32_t elapsedMs, uint32_t policy) {
  world.said.push_back(told("warning", threadId, tid, elapsedMs, policy));
}
void processHook(uint64_t threadId, uint32_t tid, uint32_t elapsedMs, uint32_t policy) {
  world.said.push_back(told("process", threadId, tid, elapsedMs, policy));
}

// Runs a call of the library as this thread.
template <typename Call>
auto as(const PretendedThread& thread, Call call) {
  world.acting = &thread;
  const auto result = call();
  world.acting = nullptr;
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
  world.threads.clear();
  for (uint64_t number = 0; number < kThreads; ++number) {
    world.threads.push_back(newThread(number));
  }
  world.said.clear();
}

// The monitor itself outlives a history, so whoever is in it leaves.
MonitorBesideModel::~MonitorBesideModel() {
  for (const PretendedThread& thread : world.threads) {
    uint64_t slot = model.slotOf(thread.id);
    as(thread, [&] { return Frame_StopHeartbeatToMon(&slot); });
  }
  if (model.awaitsCapture()) {
    handleSignal();
  }
  FrameWriteDeadloopInfo();
}

void MonitorBesideModel::agree(uint32_t answered, uint32_t expected) {
  if (answered != expected) {
    difference = line("answers %#x instead of %#x", answered, expected);
  } else if (world.said != model.said) {
    const auto [is, should] =
        std::mismatch(world.said.begin(), world.said.end(), model.said.begin(), model.said.end());
    difference = "says \"" + (is == world.said.end() ? "" : *is) + "\" instead of \"" +
                 (should == model.said.end() ? "" : *should) + "\"";
  }
  world.said.clear();
  model.said.clear();
}

namespace {

struct Choice {
  PretendedThread& thread;
  uint64_t slot;
  MonitorModel::Thresholds seconds;
  uint32_t who;
  uint32_t what;
};

void tick(MonitorBesideModel& both) {
  MonitorModel& model = both.model;
  if (model.awaitsReport()) {
    if (model.reportIsDeadly()) {
      const uint64_t slot = model.fatalSlot();
      both.agree(Frame_RegDeadloopInfoHook(&slot, threadHook), model.setHook(slot, true));
    }
    FrameWriteDeadloopInfo();
    model.report();
  }
  FRAME_TaskDeadloopMonitorEntry();
  model.pass(world.threads, world.now);
  both.agree(0, 0);
}

using Operation = void (*)(MonitorBesideModel& both, const Choice& choice);

constexpr Operation kOperations[] = {
    [](MonitorBesideModel& both, const Choice& choice) {  // register
      const MonitorModel::Thresholds& at = choice.seconds;
      uint64_t slot = choice.slot;
      both.agree(
          as(choice.thread, [&] { return Frame_SetHeartbeatToMon(&slot, at[0], at[1], at[2]); }),
          both.model.enter(choice.thread, at, world.now));
      if (slot != choice.slot && slot != both.model.slotOf(choice.thread.id)) {
        both.difference = line("is in slot %u", static_cast<unsigned>(slot));
      }
    },
    [](MonitorBesideModel& both, const Choice& choice) {  // beat
      both.agree(as(choice.thread, [&] { return Frame_SendHeartbeatToMon(&choice.slot); }),
                 both.model.beat(choice.thread, choice.slot, world.now));
    },
    [](MonitorBesideModel& both, const Choice& choice) {  // stop
      both.agree(as(choice.thread, [&] { return Frame_StopHeartbeatToMon(&choice.slot); }),
                 both.model.leave(choice.thread, choice.slot));
    },
    [](MonitorBesideModel& both, const Choice& choice) {  // the thread's hook
      const bool hook = choice.who % 2 == 0;
      both.agree(Frame_RegDeadloopInfoHook(&choice.slot, hook ? threadHook : nullptr),
                 both.model.setHook(choice.slot, hook));
    },
    [](MonitorBesideModel& both, const Choice& choice) {  // policy
      const uint32_t policy = choice.who % 3;
      both.agree(Frame_SetHeartExceptionPolicy(choice.slot, policy),
                 both.model.setPolicy(choice.slot, policy));
    },
    [](MonitorBesideModel& both, const Choice& choice) {  // tune
      const MonitorModel::Thresholds& to = choice.seconds;
      const std::string& name = choice.thread.name;
      both.agree(FRAME_UpdateDeadloopThresholdByName(name.c_str(), to[0], to[1], to[2]),
                 both.model.tune(name, to, world.now));
    },
    [](MonitorBesideModel& both, const Choice& choice) {  // switch
      const auto on = static_cast<uint8_t>(choice.who % 3);
      both.agree(FrameSetDetectSwitch(choice.slot, on),
                 both.model.switchWatch(choice.slot, on, world.now));
    },
    [](MonitorBesideModel& /*both*/, const Choice& choice) {  // time, half of it at thresholds
      world.now += choice.what % 2 == 0 ? (choice.what >> 1) % 6 * 500
                                        : static_cast<int64_t>(choice.what % 1000) - 50;
    },
    [](MonitorBesideModel& /*both*/, const Choice& choice) { choice.thread.ended = true; },
    [](MonitorBesideModel& /*both*/, const Choice& choice) {  // a new thread in its place
      if (choice.thread.ended) {
        choice.thread = newThread(choice.who % world.threads.size());
      }
    },
    [](MonitorBesideModel& both, const Choice& /*choice*/) { tick(both); },
    [](MonitorBesideModel& both, const Choice& /*choice*/) {  // the signal arrives
      if (both.model.awaitsCapture()) {
        handleSignal();
        both.model.captured();
      }
      both.agree(0, 0);
    },
    [](MonitorBesideModel& both, const Choice& choice) {  // process-wide hooks
      both.model.warningHook = choice.who % 2 == 0;
      both.model.processHook = choice.what % 2 == 0;
      Frame_RegThreadDeadloopWarningHook(both.model.warningHook ? warningHook : nullptr);
      Frame_RegThreadDeadloopHook(both.model.processHook ? processHook : nullptr);
      both.agree(0, 0);
    }};
static_assert(std::size(kOperations) == std::size(MonitorBesideModel::kUsual));

}  // namespace

bool MonitorBesideModel::operate(uint32_t operation, uint32_t who, uint32_t what) {
  PretendedThread& thread = world.threads[who % world.threads.size()];
  // Mostly the thread's own, else any, two of them out of range.
  const uint64_t slot = what % 4 != 0 ? model.slotOf(thread.id) : (what >> 2) % 66;
  kOperations[operation % std::size(kOperations)](*this,
                                                  {thread, slot, thresholdsFrom(what), who, what});
  return difference.empty();
}
