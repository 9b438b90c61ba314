/* A loop of the component that does not end by itself, and the hook that ends it. */
#include "legacy_component.h"

#include <qurnadapt/legacy_heart.h>
#include <stdatomic.h>
#include <stdio.h>

static atomic_bool rescued;

static uint32_t rescue_component(FrameDeadloopHandle* handle, uint64_t thread, uint32_t elapsed) {
  (void)thread;
  printf("component: told of %u ms of silence in slot %llu\n", elapsed,
         (unsigned long long)*handle);
  fflush(stdout);
  atomic_store(&rescued, true);
  return 0;
}

__attribute__((noinline)) void component_loop(void) {
  while (!atomic_load_explicit(&rescued, memory_order_relaxed)) {
  }
}

bool loop_in_legacy_component(void) {
  FrameDeadloopHandle self = 0;
  if (ZOT_SetHeartMon(&self, 1, 2, 3) != 0 || ZOT_SendHeartToMon(&self) != 0 ||
      ZOT_RegThreadDeadloopHook(&self, rescue_component) != 0) {
    return false;
  }
  component_loop();
  return ZOT_SetHeartMon(&self, 1, 2, 3) == 0 && ZOT_SendHeartToMon(&self) == 0;
}
