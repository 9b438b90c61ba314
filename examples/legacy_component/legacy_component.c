/* The component's life: it opens, works in rounds with a heartbeat each, and finalises. */
#define _POSIX_C_SOURCE 200809L

#include "legacy_component.h"

#include <stdio.h>
#include <time.h>

#include "session_store.h"

enum { MODULE_ID = 0x5E55, ROUNDS = 20, SESSIONS_PER_ROUND = 50, ROUND_MS = 100 };

/* Opens sessions, serves half as many, and closes those of them with even numbers. */
static bool work_a_round(struct session_store* store, uint32_t round) {
  for (uint32_t i = 1; i <= SESSIONS_PER_ROUND; ++i) {
    if (session_open(store, round * SESSIONS_PER_ROUND + i) == 0) {
      return false;
    }
  }
  uint32_t last = 0;
  for (uint32_t i = 0; i < SESSIONS_PER_ROUND / 2; ++i) {
    last = session_serve_next(store);
    if (session_number(last) == 0) {
      return false;
    }
  }
  if (session_undo(store) != last) {
    return false;
  }
  for (uint32_t handle = session_undo(store); handle != 0; handle = session_undo(store)) {
    if (session_number(handle) % 2 == 0 &&
        (!session_close(store, handle) || session_number(handle) != 0)) {
      return false;
    }
  }
  const uint32_t newest = (round + 1) * SESSIONS_PER_ROUND;
  return session_number(session_with_number(store, newest)) == newest;
}

static bool work(FrameDeadloopHandle* self, struct session_store* store) {
  const struct timespec pause = {0, ROUND_MS * 1000000L};
  for (uint32_t round = 0; round < ROUNDS; ++round) {
    if (ZOT_SendHeartToMon(self) != 0 || !work_a_round(store, round)) {
      return false;
    }
    nanosleep(&pause, NULL);
  }
  printf("component: %d sessions opened, %u still open, %u waiting\n", ROUNDS * SESSIONS_PER_ROUND,
         store->open.count, store->waiting.count);
  return true;
}

/* The same moment by three ways of telling it. */
static bool tell_time(void) {
  ZotSystime gmt, mean, local, same;
  uint32_t dst, same_dst;
  if (ZOT_GMT_SystimeGet(&gmt) != 0 || ZOT_Gmt2LocalTime(&gmt, &local, &dst) != 0 ||
      ZOT_Gmt2Lmt(&gmt, &mean) != 0 || ZOT_Lmt2LocalTime(&mean, &same, &same_dst) != 0) {
    return false;
  }
  printf("component: it is %02u:%02u GMT, %02u:%02u here%s\n", gmt.hour, gmt.minute, local.hour,
         local.minute, dst != 0 ? " in summer" : "");
  return local.hour == same.hour && local.minute == same.minute && dst == same_dst;
}

static uint64_t uptime_ms(const ZotUptimeRecord* base) {
  ZotUptimeMs uptime = {0, 0};
  ZOT_CalUptime(base, &uptime);
  return (uint64_t)uptime.msHigh << 32 | uptime.msLow;
}

static bool run_sessions(ZotHandleRecord* module) {
  struct session_store store;
  ZotUptimeRecord* base = ZOT_StartuptimeInit();
  if (base == NULL || !session_store_init(&store, module)) {
    ZOT_Free_F(base, __FILE__, __LINE__);
    return false;
  }
  const uint64_t start = uptime_ms(base);
  FrameDeadloopHandle self = 0;
  const bool good = ZOT_SetHeartMon(&self, 1, 2, 3) == 0 && work(&self, &store) && tell_time() &&
                    ZOT_StopHeartToMon(&self) == 0;
  printf("component: worked for %llu ms\n", (unsigned long long)(uptime_ms(base) - start));
  session_store_fini(&store);
  ZOT_Free_F(base, __FILE__, __LINE__);
  return good;
}

bool run_legacy_component(void) {
  ZotHandleRecord* module = NULL;
  if (ZOT_HandleInitialize(NULL, MODULE_ID, &module) != 0) {
    return false;
  }
  bool good = nbb_handle_initialize() != 0 && run_sessions(module);
  NbbHandleTerminate();
  good = ZOT_HandleFinalize(module) == 0 && good;
  printf("component: finalised, %s\n", good ? "all well" : "but something went wrong");
  fflush(stdout);
  return good;
}
