// What the monitor is to answer and to say, told by its rules.
#pragma once

#include <qurnadapt/monitor.h>

#include <array>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

#include "pretended_threads.h"

// What a hook is told, as it is kept among what is said.
std::string told(const char* who, uint64_t threadId, uint32_t tid, uint32_t elapsed, uint64_t more);

class MonitorModel {
 public:
  using Thresholds = std::array<uint32_t, 3>;  // seconds

  uint32_t enter(const PretendedThread& thread, const Thresholds& seconds, int64_t now);
  uint32_t beat(const PretendedThread& thread, uint64_t slot, int64_t now);
  uint32_t leave(const PretendedThread& thread, uint64_t slot);
  uint32_t setHook(uint64_t slot, bool hook);
  uint32_t setPolicy(uint64_t slot, uint32_t policy);
  uint32_t tune(const std::string& name, const Thresholds& seconds, int64_t now);
  uint32_t switchWatch(uint64_t slot, uint8_t on, int64_t now);
  void pass(const std::vector<PretendedThread>& threads, int64_t now);
  void report();  // of the thread that was captured
  void captured() { state_ = State::kCaptured; }

  [[nodiscard]] bool awaitsCapture() const { return state_ == State::kSignalled; }
  [[nodiscard]] bool awaitsReport() const { return state_ == State::kCaptured; }
  // Without a hook of its own the thread's report would end the process.
  [[nodiscard]] bool reportIsDeadly() const;
  // The slot of the thread with this id, out of range when there is none.
  [[nodiscard]] uint64_t slotOf(uint64_t id) const;
  [[nodiscard]] uint64_t fatalSlot() const { return fatalSlot_; }

  bool warningHook = false;
  bool processHook = false;
  std::vector<std::string> said;  // lines, and what hooks were told

 private:
  enum class State { kIdle, kSignalled, kCaptured };
  struct Node {
    bool used = false;
    uint64_t id = 0;
    uint32_t tid = 0;
    std::string name;
    std::array<uint32_t, 3> thresholdMs{};
    int64_t since = 0;
    unsigned level = 0;
    uint8_t on = 0;
    uint32_t policy = 0;
    bool hook = false;
  };

  void restart(Node& node, const Thresholds& seconds, int64_t now);
  uint32_t refuse(uint32_t code, std::initializer_list<const char*> lines);
  bool areValid(const Thresholds& seconds);
  bool isEnded(uint32_t tid, const std::vector<PretendedThread>& threads);
  bool isReleased(Node& node, const std::vector<PretendedThread>& threads);
  bool climb(uint64_t slot, const std::vector<PretendedThread>& threads, uint32_t elapsed);
  void withdraw(const std::vector<PretendedThread>& threads);

  std::array<Node, FRAME_MONITOR_CAPACITY> nodes_{};
  State state_ = State::kIdle;
  uint64_t fatalSlot_ = 0;
  uint32_t fatalElapsed_ = 0;
  uint32_t signalledTid_ = 0;
};
