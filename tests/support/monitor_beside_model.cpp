#include "monitor_beside_model.h"

#include <qurnadapt/capture.h>
#include <qurnadapt/report.h>
#include <ucontext.h>

#include <algorithm>
#include <array>
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
    uint64_t slot = model_.slotOf(thread.id);
    as(thread, [&] { return Frame_StopHeartbeatToMon(&slot); });
  }
  if (model_.awaitsCapture()) {
    handleSignal();
  }
  FrameWriteDeadloopInfo();
}

void MonitorBesideModel::agree(uint32_t answered, uint32_t expected) {
  if (answered != expected) {
    difference_ = line("answers %#x instead of %#x", answered, expected);
  } else if (world.said != model_.said) {
    const auto [is, should] =
        std::mismatch(world.said.begin(), world.said.end(), model_.said.begin(), model_.said.end());
    difference_ = "says \"" + (is == world.said.end() ? "" : *is) + "\" instead of \"" +
                  (should == model_.said.end() ? "" : *should) + "\"";
  }
  world.said.clear();
  model_.said.clear();
}

void MonitorBesideModel::enter(const Choice& choice) {
  const MonitorModel::Thresholds& at = choice.seconds;
  uint64_t slot = choice.slot;
  agree(as(choice.thread, [&] { return Frame_SetHeartbeatToMon(&slot, at[0], at[1], at[2]); }),
        model_.enter(choice.thread, choice.seconds, world.now));
  if (slot != choice.slot && slot != model_.slotOf(choice.thread.id)) {
    difference_ = line("is in slot %u", static_cast<unsigned>(slot));
  }
}

void MonitorBesideModel::beat(const Choice& choice) {
  agree(as(choice.thread, [&] { return Frame_SendHeartbeatToMon(&choice.slot); }),
        model_.beat(choice.thread, choice.slot, world.now));
}

void MonitorBesideModel::leave(const Choice& choice) {
  agree(as(choice.thread, [&] { return Frame_StopHeartbeatToMon(&choice.slot); }),
        model_.leave(choice.thread, choice.slot));
}

void MonitorBesideModel::setHook(const Choice& choice) {
  const bool hook = choice.who % 2 == 0;
  agree(Frame_RegDeadloopInfoHook(&choice.slot, hook ? threadHook : nullptr),
        model_.setHook(choice.slot, hook));
}

void MonitorBesideModel::setPolicy(const Choice& choice) {
  const uint32_t policy = choice.who % 3;
  agree(Frame_SetHeartExceptionPolicy(choice.slot, policy), model_.setPolicy(choice.slot, policy));
}

void MonitorBesideModel::tune(const Choice& choice) {
  const auto& [first, second, third] = choice.seconds;
  const std::string& name = choice.thread.name;
  agree(FRAME_UpdateDeadloopThresholdByName(name.c_str(), first, second, third),
        model_.tune(name, choice.seconds, world.now));
}

void MonitorBesideModel::switchWatch(const Choice& choice) {
  const auto on = static_cast<uint8_t>(choice.who % 3);
  agree(FrameSetDetectSwitch(choice.slot, on), model_.switchWatch(choice.slot, on, world.now));
}

// Half of the times are where thresholds are.
void MonitorBesideModel::advance(const Choice& choice) {
  world.now += choice.what % 2 == 0 ? (choice.what >> 1) % 6 * 500
                                    : static_cast<int64_t>(choice.what % 1000) - 50;
}

void MonitorBesideModel::endThread(const Choice& choice) { choice.thread.ended = true; }

void MonitorBesideModel::beginThread(const Choice& choice) {
  if (choice.thread.ended) {
    choice.thread = newThread(choice.who % world.threads.size());
  }
}

void MonitorBesideModel::tick(const Choice& /*choice*/) {
  if (model_.awaitsReport()) {
    if (model_.reportIsDeadly()) {
      const uint64_t slot = model_.fatalSlot();
      agree(Frame_RegDeadloopInfoHook(&slot, threadHook), model_.setHook(slot, true));
    }
    FrameWriteDeadloopInfo();
    model_.report();
  }
  FRAME_TaskDeadloopMonitorEntry();
  model_.pass(world.threads, world.now);
  agree(0, 0);
}

void MonitorBesideModel::capture(const Choice& /*choice*/) {
  if (model_.awaitsCapture()) {
    handleSignal();
    model_.captured();
  }
  agree(0, 0);
}

void MonitorBesideModel::setProcessHooks(const Choice& choice) {
  model_.warningHook = choice.who % 2 == 0;
  model_.processHook = choice.what % 2 == 0;
  Frame_RegThreadDeadloopWarningHook(model_.warningHook ? warningHook : nullptr);
  Frame_RegThreadDeadloopHook(model_.processHook ? processHook : nullptr);
  agree(0, 0);
}

bool MonitorBesideModel::operate(Operation operation, uint32_t who, uint32_t what) {
  using Self = MonitorBesideModel;
  static constexpr std::array kOperations{
      &Self::enter, &Self::beat,        &Self::leave,          &Self::setHook,   &Self::setPolicy,
      &Self::tune,  &Self::switchWatch, &Self::advance,        &Self::endThread, &Self::beginThread,
      &Self::tick,  &Self::capture,     &Self::setProcessHooks};
  static_assert(kOperations.size() == static_cast<size_t>(Operation::kCount));
  PretendedThread& thread = world.threads[who % world.threads.size()];
  // Mostly the thread's own, else any, two of them out of range.
  const uint64_t slot = what % 4 != 0 ? model_.slotOf(thread.id) : (what >> 2) % 66;
  const Choice choice{thread, slot, thresholdsFrom(what), who, what};
  (this->*kOperations[static_cast<size_t>(operation)])(choice);
  return difference_.empty();
}
