/* A component whose load-time constructor has its thread watched through the legacy calls. */
#include <qurnadapt/legacy_heart.h>

uint32_t early_registration = 99;
uint32_t early_heartbeat = 99;

__attribute__((constructor)) static void registerAtLoad(void) {
  FrameDeadloopHandle self = 0;
  early_registration = ZOT_SetHeartMon(&self, 1, 2, 3);
  early_heartbeat = ZOT_SendHeartToMon(&self);
}
