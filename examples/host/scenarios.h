// What one of the host's workers does when its time comes.
#pragma once

#include <qurnadapt/monitor.h>

#include <span>

struct Scenario {
  const char* name = nullptr;
  const char* story = nullptr;
  int exitStatus = 0;             // of the host
  const char* stuckIn = nullptr;  // the function that the report names first among ours, or null
  void (*prepare)() = nullptr;    // on the main thread, before the workers start; may be null
  // On the worker. Returns whether the worker goes on working; false ends it at once.
  bool (*happen)(FrameDeadloopHandle& self) = nullptr;
  int workers = 1;  // that it happens to
};

std::span<const Scenario> scenarios();

// The scenario in soak.cpp.
void prepare_to_endure();
bool endure_many_dead_loops(FrameDeadloopHandle& self);
