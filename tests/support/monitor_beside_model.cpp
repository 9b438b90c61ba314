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
  [[nodiscard]] uint32_t policy() const { return who % 3; }
  [[nodiscard]] uint8_t on() const { return static_cast<uint8_t>(who % 3); }
  [[nodiscard]] bool hook() const { return who % 2 == 0; }
};

// A call on a slot: what it says to one out of range, what it answers and says to one that is
// nobody's, or another's than the caller's, and what it changes else.
struct SlotCall {
  uint32_t (*call)(const Choice& choice);
  const char* invalid;
  uint32_t absentCode;
  const char* absent;
  void (*change)(Node& node, const Choice& choice);
  bool onlyOwn = false;
  uint32_t mostPolicy = UINT32_MAX;
};

constexpr SlotCall kBeat{
    [](const Choice& choice) { return Frame_SendHeartbeatToMon(&choice.slot); },
    "100 Frame task deadloop detect, handle invalid.\n"
    "100 Send heartbeat unsuccessfully, input handle invalid.\n",
    QURN_INVALID_ARGUMENT,
    "100 Send heartbeat unsuccessfully, handle not match.\n",
    [](Node& node, const Choice& /*choice*/) { node.since = world.now; },
    true};
constexpr SlotCall kStop{
    [](const Choice& choice) { return Frame_StopHeartbeatToMon(&choice.slot); },
    "100 Frame task deadloop detect, handle invalid.\n"
    "100 Stop heartbeat unsuccessfully, input handle invalid.\n",
    QURN_FAILED,
    "100 Frame remove monitor task info, handle not match.\n"
    "100 Stop heartbeat unsuccessfully, monitor task not exist.\n",
    [](Node& node, const Choice& /*choice*/) { node = {}; },
    true};
constexpr SlotCall kHook{
    [](const Choice& choice) {
      return Frame_RegDeadloopInfoHook(&choice.slot, choice.hook() ? threadHook : nullptr);
    },
    "100 Frame task deadloop detect, handle invalid.\n"
    "100 Register task deadloop hook, input handle invalid.\n",
    QURN_FAILED, "100 Register task deadloop hook, deadloop monitor node not exist.\n",
    [](Node& node, const Choice& choice) { node.hook = choice.hook(); }};
constexpr SlotCall kPolicy{[](const Choice& choice) {
                             return Frame_SetHeartExceptionPolicy(choice.slot, choice.policy());
                           },
                           "100 Set deadloop exception policy, parameter invalid.\n",
                           QURN_FAILED,
                           "100 Set deadloop exception policy, deadloop monitor node not exist.\n",
                           [](Node& node, const Choice& choice) { node.policy = choice.policy(); },
                           false,
                           1};
constexpr SlotCall kSwitch{
    [](const Choice& choice) { return FrameSetDetectSwitch(choice.slot, choice.on()); },
    "100 Frame deadloop set detect switch, input handle invalid.\n", QURN_FAILED,
    "100 Frame deadloop set detect switch, task info not exist.\n",
    [](Node& node, const Choice& choice) {
      node.since = (node.on != 0) == (choice.on() != 0) ? node.since : world.now;
      node.on = choice.on();
    }};

template <const SlotCall& rule>
void onSlot(Both& both, const Choice& choice) {
  const uint32_t answered = rule.call(choice);
  if (choice.slot >= both.model.nodes.size() || choice.policy() > rule.mostPolicy) {
    return both.agree(answered, both.model.refuse(QURN_INVALID_ARGUMENT, rule.invalid));
  }
  Node& node = both.model.nodes[choice.slot];
  if (node.thread.id == 0 || (rule.onlyOwn && node.thread.id != choice.thread.id)) {
    return both.agree(answered, both.model.refuse(rule.absentCode, rule.absent));
  }
  rule.change(node, choice);
  both.agree(answered, QURN_OK);
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
      onSlot<kHook>(both, {choice.thread, model.fatalSlot, 0, 0});
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
    enter, onSlot<kBeat>,   onSlot<kStop>,  onSlot<kHook>, onSlot<kPolicy>,
    tune,  onSlot<kSwitch>, passTime,       end,           begin,
    tick,  capture,         setProcessHooks};

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
