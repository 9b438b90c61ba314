#include "monitor_beside_model.h"

#include <qurnadapt/capture.h>
#include <qurnadapt/report.h>
#include <sys/prctl.h>
#include <ucontext.h>

#include <numeric>

namespace {

using Both = MonitorBesideModel;
using Node = MonitorModel::Node;
using State = MonitorModel::State;

constexpr size_t kThreads = 70;  // more than there are slots
constexpr size_t kNames = 40;
constexpr uint64_t kAnybody = 0;
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

PretendedThread newThread(uint64_t number) {
  return {0x7000 + number * 0x100, ++g_lastTid, "t" + std::to_string(number % kNames), false};
}

// On the real thread, whose stack has bounds.
void handleSignal() {
  world.acting = nullptr;
  ucontext_t context{};
  getcontext(&context);
  siginfo_t info{};
  FrameDeadLoopSignalHandle(SIGRTMIN + 2, &info, &context);
}

struct Choice {
  PretendedThread& thread;
  uint64_t slot;
  uint32_t who;
  uint32_t what;

  [[nodiscard]] MonitorModel::Thresholds seconds() const {
    const uint32_t first = what % 5;
    if (what % 61 == 60) {
      return {first, 4294967, 0xFFFFFFFF};
    }
    return {first, first + (what >> 8) % 4, first + (what >> 12) % 8};
  }
};

// A call on a slot: what it answers, who alone may make it, what it says of a slot out of range,
// what it answers and says of one without its thread, and what it changes else.
template <typename Change>
void onSlot(Both& both, uint32_t answered, uint64_t slot, uint64_t owner, const char* invalid,
            uint32_t absentCode, const char* absent, Change change) {
  MonitorModel& model = both.model;
  if (slot >= model.nodes.size()) {
    return both.agree(answered, model.refuse(QURN_INVALID_ARGUMENT, invalid));
  }
  const uint64_t id = model.nodes[slot].thread.id;
  if (id == 0 || (owner != kAnybody && owner != id)) {
    return both.agree(answered, model.refuse(absentCode, absent));
  }
  change(model.nodes[slot]);
  both.agree(answered, QURN_OK);
}

void beat(Both& both, const Choice& choice) {
  onSlot(both, Frame_SendHeartbeatToMon(&choice.slot), choice.slot, choice.thread.id,
         "100 Frame task deadloop detect, handle invalid.\n"
         "100 Send heartbeat unsuccessfully, input handle invalid.\n",
         QURN_INVALID_ARGUMENT, "100 Send heartbeat unsuccessfully, handle not match.\n",
         [](Node& node) { node.since = world.now; });
}

void stop(Both& both, const Choice& choice) {
  onSlot(both, Frame_StopHeartbeatToMon(&choice.slot), choice.slot, choice.thread.id,
         "100 Frame task deadloop detect, handle invalid.\n"
         "100 Stop heartbeat unsuccessfully, input handle invalid.\n",
         QURN_FAILED,
         "100 Frame remove monitor task info, handle not match.\n"
         "100 Stop heartbeat unsuccessfully, monitor task not exist.\n",
         [](Node& node) { node = {}; });
}

void setHook(Both& both, const Choice& choice) {
  const bool hook = choice.who % 2 == 0;
  onSlot(both, Frame_RegDeadloopInfoHook(&choice.slot, hook ? threadHook : nullptr), choice.slot,
         kAnybody,
         "100 Frame task deadloop detect, handle invalid.\n"
         "100 Register task deadloop hook, input handle invalid.\n",
         QURN_FAILED, "100 Register task deadloop hook, deadloop monitor node not exist.\n",
         [hook](Node& node) { node.hook = hook; });
}

void setPolicy(Both& both, const Choice& choice) {
  const uint32_t policy = choice.who % 3;
  onSlot(both, Frame_SetHeartExceptionPolicy(choice.slot, policy),
         policy > 1 ? UINT64_MAX : choice.slot, kAnybody,
         "100 Set deadloop exception policy, parameter invalid.\n", QURN_FAILED,
         "100 Set deadloop exception policy, deadloop monitor node not exist.\n",
         [policy](Node& node) { node.policy = policy; });
}

void switchWatch(Both& both, const Choice& choice) {
  const auto on = static_cast<uint8_t>(choice.who % 3);
  onSlot(both, FrameSetDetectSwitch(choice.slot, on), choice.slot, kAnybody,
         "100 Frame deadloop set detect switch, input handle invalid.\n", QURN_FAILED,
         "100 Frame deadloop set detect switch, task info not exist.\n", [on](Node& node) {
           node.since = (node.on != 0) == (on != 0) ? node.since : world.now;
           node.on = on;
         });
}

void enter(Both& both, const Choice& choice) {
  const auto [first, second, third] = choice.seconds();
  uint64_t slot = choice.slot;
  both.agree(Frame_SetHeartbeatToMon(&slot, first, second, third),
             both.model.enter(choice.thread, choice.seconds()));
  if (slot != choice.slot && slot != both.model.slotOf(choice.thread.id)) {
    both.difference += line("is in slot %lu; ", slot);
  }
}

void tune(Both& both, const Choice& choice) {
  const auto [first, second, third] = choice.seconds();
  const std::string& name = choice.thread.name;
  both.agree(FRAME_UpdateDeadloopThresholdByName(name.c_str(), first, second, third),
             both.model.tune(name, choice.seconds()));
}

// Half of it at thresholds.
void passTime(Both& /*both*/, const Choice& choice) {
  world.now += choice.what % 2 == 0 ? (choice.what >> 1) % 6 * 500
                                    : static_cast<int64_t>(choice.what % 1000) - 50;
}

void end(Both& /*both*/, const Choice& choice) { choice.thread.ended = true; }

void begin(Both& /*both*/, const Choice& choice) {
  if (choice.thread.ended) {
    choice.thread = newThread(choice.who % world.threads.size());
  }
}

void tick(Both& both, const Choice& choice) {
  MonitorModel& model = both.model;
  if (model.state == State::kCaptured) {
    const Node& node = model.nodes[model.fatalSlot];
    if (node.level == 3 && !node.hook) {  // or the report would end the process
      setHook(both, {choice.thread, model.fatalSlot, 0, 0});
    }
    FrameWriteDeadloopInfo();
    model.report();
  }
  FRAME_TaskDeadloopMonitorEntry();
  model.pass();
}

void capture(Both& both, const Choice& /*choice*/) {
  if (both.model.state == State::kSignalled) {
    handleSignal();
    both.model.state = State::kCaptured;
  }
}

void setProcessHooks(Both& both, const Choice& choice) {
  both.model.warningHook = choice.who % 2 == 0;
  both.model.processHook = choice.what % 2 == 0;
  Frame_RegThreadDeadloopWarningHook(both.model.warningHook ? warningHook : nullptr);
  Frame_RegThreadDeadloopHook(both.model.processHook ? processHook : nullptr);
}

constexpr void (*kOperations[])(Both& both, const Choice& choice) = {
    enter,    beat, stop,  setHook, setPolicy, tune,           switchWatch,
    passTime, end,  begin, tick,    capture,   setProcessHooks};

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
    world.acting = &thread;
    Frame_StopHeartbeatToMon(&slot);
  }
  if (model.state == State::kSignalled) {
    handleSignal();
  }
  world.acting = nullptr;
  FrameWriteDeadloopInfo();
}

void MonitorBesideModel::agree(uint32_t answered, uint32_t expected) {
  if (answered != expected) {
    difference += line("answers %#x instead of %#x; ", answered, expected);
  }
}

bool MonitorBesideModel::operate(uint32_t operation, uint32_t who, uint32_t what) {
  PretendedThread& thread = world.threads[who % world.threads.size()];
  // Mostly the thread's own, else any, two of them out of range.
  const uint64_t slot = what % 4 != 0 ? model.slotOf(thread.id) : (what >> 2) % 66;
  prctl(PR_SET_NAME, thread.name.c_str());
  world.acting = &thread;
  kOperations[operation % std::size(kOperations)](*this, {thread, slot, who, what});
  world.acting = nullptr;
  const auto said = std::accumulate(world.said.begin(), world.said.end(), std::string());
  if (said != model.said) {
    difference += "says\n" + said + "instead of\n" + model.said;
  }
  world.said.clear();
  model.said.clear();
  return difference.empty();
}
