// The monitor beside its model, in a pretended world: whatever is done to both, they must answer
// and say the same.
#pragma once

#include <qurnadapt/capture.h>
#include <qurnadapt/report.h>
#include <sys/prctl.h>
#include <ucontext.h>

#include <iterator>
#include <numeric>

#include "monitor_model.h"

class MonitorBesideModel {
 public:
  MonitorBesideModel() {
    FrameDeadloopInit();
    Frame_RegThreadDeadloopWarningHook(nullptr);
    Frame_RegThreadDeadloopHook(nullptr);
    world.threads.clear();
    for (uint64_t number = 0; number < 70; ++number) {  // more than there are slots
      world.threads.push_back(newThread(number));
    }
    world.said.clear();
  }

  // The monitor itself outlives a history, so whoever is in it leaves.
  ~MonitorBesideModel() {
    for (const PretendedThread& thread : world.threads) {
      uint64_t slot = model_.slotOf(thread.id);
      world.acting = &thread;
      Frame_StopHeartbeatToMon(&slot);
    }
    capture();
    world.acting = nullptr;
    FrameWriteDeadloopInfo();
  }

  // Lets both do it; what it concerns is chosen by the numbers. False when they differ.
  bool operate(uint32_t operation, uint32_t who, uint32_t what) {
    thread_ = &world.threads[who % world.threads.size()];
    // Mostly the thread's own, else any, two of them out of range.
    slot_ = what % 4 != 0 ? model_.slotOf(thread_->id) : (what >> 2) % 66;
    who_ = who;
    what_ = what;
    prctl(PR_SET_NAME, thread_->name.c_str());
    world.acting = thread_;
    (this->*kOperations[operation % std::size(kOperations)])();
    world.acting = nullptr;
    const auto said = std::accumulate(world.said.begin(), world.said.end(), std::string());
    if (said != model_.said) {
      difference += "says\n" + said + "instead of\n" + model_.said;
    }
    world.said.clear();
    model_.said.clear();
    return difference.empty();
  }

  std::string difference;

 private:
  using Node = MonitorModel::Node;
  using State = MonitorModel::State;

  static PretendedThread newThread(uint64_t number) {
    static uint32_t lastTid = 1000;
    return {0x7000 + number * 0x100, ++lastTid, "t" + std::to_string(number % 40), false};
  }

  static uint32_t threadHook(FrameDeadloopHandle* handle, uint64_t threadId, uint32_t elapsedMs) {
    world.said.push_back(told("hook", threadId, 0, elapsedMs, *handle));
    return 0;
  }
  template <bool warns>
  static void processHook(uint64_t threadId, uint32_t tid, uint32_t elapsedMs, uint32_t policy) {
    world.said.push_back(told(warns ? "warning" : "process", threadId, tid, elapsedMs, policy));
  }

  [[nodiscard]] MonitorModel::Thresholds seconds() const {
    const uint32_t first = what_ % 5;
    const bool large = what_ % 61 == 60;
    return {first, large ? 4294967 : first + (what_ >> 8) % 4,
            large ? 0xFFFFFFFF : first + (what_ >> 12) % 8};
  }

  void agree(uint32_t answered, uint32_t expected) {
    if (answered != expected) {
      difference += line("answers %#x instead of %#x; ", answered, expected);
    }
  }

  // A call on a slot: what it answers, whether only the slot's own thread may make it, what it says
  // of a slot out of range, what it answers and says of one without its thread, and what it
  // changes else.
  template <typename Change>
  void onSlot(uint32_t answered, bool inRange, bool ownOnly, const char* invalid,
              uint32_t absentCode, const char* absent, Change change) {
    if (!inRange || slot_ >= model_.nodes.size()) {
      return agree(answered, model_.refuse(QURN_INVALID_ARGUMENT, invalid));
    }
    Node& node = model_.nodes[slot_];
    if (node.thread.id == 0 || (ownOnly && node.thread.id != thread_->id)) {
      return agree(answered, model_.refuse(absentCode, absent));
    }
    change(node);
    agree(answered, QURN_OK);
  }

  void beat() {
    onSlot(Frame_SendHeartbeatToMon(&slot_), true, true,
           "100 Frame task deadloop detect, handle invalid.\n"
           "100 Send heartbeat unsuccessfully, input handle invalid.\n",
           QURN_INVALID_ARGUMENT, "100 Send heartbeat unsuccessfully, handle not match.\n",
           [](Node& node) { node.since = world.now; });
  }

  void stop() {
    onSlot(Frame_StopHeartbeatToMon(&slot_), true, true,
           "100 Frame task deadloop detect, handle invalid.\n"
           "100 Stop heartbeat unsuccessfully, input handle invalid.\n",
           QURN_FAILED,
           "100 Frame remove monitor task info, handle not match.\n"
           "100 Stop heartbeat unsuccessfully, monitor task not exist.\n",
           [](Node& node) { node = {}; });
  }

  void setHook() {
    const bool hook = who_ % 2 == 0;
    onSlot(Frame_RegDeadloopInfoHook(&slot_, hook ? threadHook : nullptr), true, false,
           "100 Frame task deadloop detect, handle invalid.\n"
           "100 Register task deadloop hook, input handle invalid.\n",
           QURN_FAILED, "100 Register task deadloop hook, deadloop monitor node not exist.\n",
           [hook](Node& node) { node.hook = hook; });
  }

  void setPolicy() {
    const uint32_t policy = who_ % 3;
    onSlot(Frame_SetHeartExceptionPolicy(slot_, policy), policy <= 1, false,
           "100 Set deadloop exception policy, parameter invalid.\n", QURN_FAILED,
           "100 Set deadloop exception policy, deadloop monitor node not exist.\n",
           [policy](Node& node) { node.policy = policy; });
  }

  void switchWatch() {
    const auto on = static_cast<uint8_t>(who_ % 3);
    onSlot(FrameSetDetectSwitch(slot_, on), true, false,
           "100 Frame deadloop set detect switch, input handle invalid.\n", QURN_FAILED,
           "100 Frame deadloop set detect switch, task info not exist.\n", [on](Node& node) {
             node.since = (node.on != 0) == (on != 0) ? node.since : world.now;
             node.on = on;
           });
  }

  void enter() {
    const auto [first, second, third] = seconds();
    uint64_t slot = slot_;
    agree(Frame_SetHeartbeatToMon(&slot, first, second, third), model_.enter(*thread_, seconds()));
    if (slot != slot_ && slot != model_.slotOf(thread_->id)) {
      difference += line("is in slot %lu; ", slot);
    }
  }

  void tune() {
    const auto [first, second, third] = seconds();
    const std::string& name = thread_->name;
    agree(FRAME_UpdateDeadloopThresholdByName(name.c_str(), first, second, third),
          model_.tune(name, seconds()));
  }

  // Half of it at thresholds.
  void passTime() {
    world.now += what_ % 2 == 0 ? (what_ >> 1) % 6 * 500 : static_cast<int64_t>(what_ % 1000) - 50;
  }

  void end() { thread_->ended = true; }

  void begin() {
    if (thread_->ended) {
      *thread_ = newThread(who_ % world.threads.size());
    }
  }

  void tick() {
    if (model_.state == State::kCaptured) {
      const Node& node = model_.nodes[model_.fatalSlot];
      if (node.level == 3 && !node.hook) {  // or the report would end the process
        slot_ = model_.fatalSlot;
        who_ = 0;
        setHook();
      }
      FrameWriteDeadloopInfo();
      model_.report();
    }
    FRAME_TaskDeadloopMonitorEntry();
    model_.pass();
  }

  // On the real thread, whose stack has bounds.
  void capture() {
    if (model_.state == State::kSignalled) {
      world.acting = nullptr;
      ucontext_t context{};
      getcontext(&context);
      siginfo_t info{};
      FrameDeadLoopSignalHandle(SIGRTMIN + 2, &info, &context);
      model_.state = State::kCaptured;
    }
  }

  void setProcessHooks() {
    model_.warningHook = who_ % 2 == 0;
    model_.processHook = what_ % 2 == 0;
    Frame_RegThreadDeadloopWarningHook(model_.warningHook ? processHook<true> : nullptr);
    Frame_RegThreadDeadloopHook(model_.processHook ? processHook<false> : nullptr);
  }

  using Me = MonitorBesideModel;
  static constexpr void (Me::*kOperations[])() = {
      &Me::enter, &Me::beat,        &Me::stop,           &Me::setHook, &Me::setPolicy,
      &Me::tune,  &Me::switchWatch, &Me::passTime,       &Me::end,     &Me::begin,
      &Me::tick,  &Me::capture,     &Me::setProcessHooks};

  MonitorModel model_;
  PretendedThread* thread_ = nullptr;
  uint64_t slot_ = 0;
  uint32_t who_ = 0;
  uint32_t what_ = 0;
};
