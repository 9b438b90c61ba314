// What the monitor is to answer and to say, told by its rules.
#pragma once

#include <qurnadapt/monitor.h>

#include <csignal>

#include "pretended_threads.h"

// What a hook is told, as it is kept among what is said.
inline std::string told(const char* who, uint64_t id, uint32_t tid, uint32_t elapsed,
                        uint64_t more) {
  return line("%s: %lu %u %u %lu\n", who, id, tid, elapsed, more);
}

struct MonitorModel {
  using Thresholds = std::array<uint32_t, 3>;  // seconds
  enum class State { kIdle, kSignalled, kCaptured };
  struct Node {
    PretendedThread thread{};  // of id 0 while the slot is free
    Thresholds thresholdMs{};
    int64_t since = 0;
    unsigned level = 0;
    uint8_t on = 1;
    uint32_t policy = 0;
    bool hook = false;
  };

  std::array<Node, FRAME_MONITOR_CAPACITY> nodes{};
  State state = State::kIdle;
  uint64_t fatalSlot = 0;
  uint32_t fatalElapsed = 0;
  uint32_t signalledTid = 0;
  int64_t signalledAt = 0;
  int passesSince = 0;
  bool warningHook = false;
  bool processHook = false;
  std::string said;  // lines, and what hooks were told

  // The first such slot, out of range when there is none.
  template <typename Is>
  uint64_t slotWhere(Is is) const {
    return static_cast<uint64_t>(std::find_if(nodes.begin(), nodes.end(), is) - nodes.begin());
  }
  uint64_t slotOf(uint64_t id) const {
    return slotWhere([id](const Node& node) { return node.thread.id == id; });
  }

  uint32_t refuse(uint32_t code, const char* lines) {
    said += lines;
    return code;
  }

  // What a call for this node answers.
  uint32_t restart(uint64_t slot, const Thresholds& seconds, const char* whenThereIsNone) {
    if (slot == nodes.size()) {
      return refuse(QURN_FAILED, whenThereIsNone);
    }
    std::transform(seconds.begin(), seconds.end(), nodes[slot].thresholdMs.begin(),
                   [](uint32_t s) { return s < 4294967 ? s * 1000 : 0xFFFFFFFF; });
    nodes[slot].since = world.now;
    nodes[slot].level = 0;
    return QURN_OK;
  }

  bool areValid(const Thresholds& seconds) {
    const auto& [first, second, third] = seconds;
    if (first != 0 && first <= second && second <= third) {
      return true;
    }
    said += line(
        "100 Frame task deadloop detect, threshold invalid. (first threshold = %u, "
        "second threshold = %u, third threshold = %u)\n",
        first, second, third);
    return false;
  }

  uint32_t enter(const PretendedThread& thread, const Thresholds& seconds) {
    if (!areValid(seconds)) {
      return refuse(QURN_INVALID_ARGUMENT,
                    "100 Set heartbeat param unsuccessfully, param invalid.\n");
    }
    uint64_t slot = slotOf(thread.id);
    if (slot < nodes.size() && nodes[slot].thread.tid != thread.tid) {
      nodes[slot] = {};  // of an ended thread
      slot = nodes.size();
    }
    if (slot == nodes.size() && (slot = slotOf(0)) < nodes.size()) {
      nodes[slot] = {.thread = thread};
    }
    return restart(slot, seconds,
                   "100 Frame set monitor task info, monitor task out of bounds. (max = 64)\n"
                   "100 Set heartbeat param unsuccessfully, set param unsuccessfully.\n");
  }

  uint32_t tune(const std::string& name, const Thresholds& seconds) {
    return areValid(seconds)
               ? restart(slotWhere([&](const Node& node) { return node.thread.name == name; }),
                         seconds, "100 Frame update inteval by name, task not found.\n")
               : refuse(QURN_INVALID_ARGUMENT,
                        "100 Frame update inteval by name, param invalid.\n");
  }

  bool isEnded(uint32_t tid) {
    const bool ended = !world.isAlive(tid);
    said += ended ? line("100 Check thread exist, tid %u not exist.\n", tid) : "";
    return ended;
  }

  bool isReleased(Node& node) {
    const PretendedThread thread = node.thread;
    if (!isEnded(thread.tid)) {
      return false;
    }
    node = {};
    said +=
        line("40 Task deadloop entry, task[%s:%u] terminated.\n", thread.name.c_str(), thread.tid);
    return true;
  }

  void callHook(const std::string& hook, const std::string& isTold) {
    const std::string name = "80 Frame task deadloop detect, " + hook + " hook ";
    said += name + "start.\n" + isTold + name + "end.\n";
  }

  // True when the third threshold ends the pass.
  bool climb(Node& node) {
    static constexpr const char* kSteps[][2] = {
        {"40", "first"}, {"80", "second"}, {"100", "third"}};
    const auto& [id, tid, name, ended] = node.thread;
    if (id == 0 || node.on == 0 || node.level == 3) {
      return false;
    }
    const int64_t elapsed = world.now - node.since;
    if (elapsed < 0) {
      said += line("100 Task deadloop entry, task elapsed time error. (%ld)\n", elapsed);
    }
    while (node.level < 3 && elapsed >= node.thresholdMs[node.level]) {
      if (isReleased(node)) {
        return false;
      }
      const auto& [level, ordinal] = kSteps[node.level++];
      const auto& [first, second, third] = node.thresholdMs;
      said += line(
          "%s Frame task deadloop detect, task [%s:%u] trigger %s threshold timeout.(elapsed time "
          "= %ld, first threshold = %u, second threshold = %u, third threshold = %u)\n",
          level, name.c_str(), tid, ordinal, elapsed, first, second, third);
      if (node.level == 2 && warningHook) {
        callHook("global warn",
                 told("warning", id, tid, static_cast<uint32_t>(elapsed), node.policy));
      }
    }
    if (node.level < 3) {
      return false;
    }
    said += line("40 Signal %d send to thread %lu.\n", SIGRTMIN + 2, id);
    state = State::kSignalled;
    fatalSlot = static_cast<uint64_t>(&node - nodes.data());
    fatalElapsed = static_cast<uint32_t>(elapsed);
    signalledTid = tid;
    signalledAt = world.now;
    passesSince = 0;
    return true;
  }

  void pass() {
    if (state == State::kIdle) {
      static_cast<void>(
          std::any_of(nodes.begin(), nodes.end(), [this](Node& node) { return climb(node); }));
    } else if (state == State::kSignalled) {
      // A thread that was to be captured and is there no more sets the monitor free again.
      Node& node = nodes[fatalSlot];
      const bool registered = node.thread.tid == signalledTid;
      ++passesSince;
      if (registered ? isReleased(node) : isEnded(signalledTid)) {
        state = State::kIdle;
      } else if (registered && passesSince >= 10 && world.now - signalledAt >= 10000) {
        said += line("100 Dead-loop signal not handled, detection suspended. (task [%s:%u])\n",
                     node.thread.name.c_str(), signalledTid);
        passesSince = std::numeric_limits<int>::min();  // once
      }
    }
  }

  // Of the thread that was captured.
  void report() {
    const Node& node = nodes[fatalSlot];
    const PretendedThread& thread = node.thread;
    state = State::kIdle;
    if (node.level < 3) {
      return;
    }
    callHook("deadloop process", told("hook", thread.id, 0, fatalElapsed, fatalSlot));
    if (processHook) {
      callHook("deadloop process global",
               told("process", thread.id, thread.tid, fatalElapsed, node.policy));
    }
  }
};
