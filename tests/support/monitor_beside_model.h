// The monitor beside its model, in a pretended world: whatever is done to both, they must answer
// and say the same.
#pragma once

#include "monitor_model.h"

struct MonitorBesideModel {
  MonitorBesideModel();
  ~MonitorBesideModel();

  // Lets both do it; what it concerns is chosen by the numbers. False when they differ.
  bool operate(uint32_t operation, uint32_t who, uint32_t what);
  void agree(uint32_t answered, uint32_t expected);

  MonitorModel model;
  std::string difference;
};
