// The monitor beside its model, in a pretended world: whatever is done to both, they must answer
// and say the same.
#pragma once

#include <cstdint>
#include <string>

#include "monitor_model.h"
#include "pretended_threads.h"

struct MonitorBesideModel {
  // How often each operation is to come: register, beat, stop; hook, policy, tune, switch; time,
  // end, begin; tick, capture, process-wide hooks. As in a process, and so that the table fills up.
  static constexpr double kUsual[] = {2, 2, 1, 1, 1, 1, 1, 1, 1, 1, 2, 1, 1};
  static constexpr double kFilling[] = {2, 2, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};

  MonitorBesideModel();
  ~MonitorBesideModel();
  MonitorBesideModel(const MonitorBesideModel&) = delete;
  MonitorBesideModel& operator=(const MonitorBesideModel&) = delete;

  // Lets both do it; what it concerns is chosen by the numbers. False when they differ.
  bool operate(uint32_t operation, uint32_t who, uint32_t what);
  void agree(uint32_t answered, uint32_t expected);

  MonitorModel model;
  std::string difference;
};
