// The monitor beside its model, in a pretended world: whatever is done to both, they must answer
// and say the same.
#pragma once

#include <cstdint>
#include <string>

#include "monitor_model.h"
#include "pretended_threads.h"

class MonitorBesideModel {
 public:
  enum class Operation {
    kEnter,
    kBeat,
    kLeave,
    kHook,
    kPolicy,
    kTune,
    kSwitch,
    kAdvance,
    kEnd,
    kBegin,
    kTick,
    kCapture,
    kHooks,
    kCount
  };

  MonitorBesideModel();
  ~MonitorBesideModel();
  MonitorBesideModel(const MonitorBesideModel&) = delete;
  MonitorBesideModel& operator=(const MonitorBesideModel&) = delete;
  // Lets both do it; what it concerns is chosen by the numbers. False when they differ.
  bool operate(Operation operation, uint32_t who, uint32_t what);
  [[nodiscard]] const std::string& difference() const { return difference_; }

 private:
  struct Choice {
    PretendedThread& thread;
    uint64_t slot;
    MonitorModel::Thresholds seconds;
    uint32_t who;
    uint32_t what;
  };
  void enter(const Choice& choice);
  void beat(const Choice& choice);
  void leave(const Choice& choice);
  void setHook(const Choice& choice);
  void setPolicy(const Choice& choice);
  void tune(const Choice& choice);
  void switchWatch(const Choice& choice);
  void advance(const Choice& choice);
  void endThread(const Choice& choice);
  void beginThread(const Choice& choice);
  void tick(const Choice& choice);
  void capture(const Choice& choice);
  void setProcessHooks(const Choice& choice);

  void agree(uint32_t answered, uint32_t expected);

  MonitorModel model_;
  std::string difference_;
};
