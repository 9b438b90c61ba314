/* A component whose load-time constructor has its thread watched through the legacy calls. */
#include <qurnadapt/legacy_heart.h>

uint32_t early_answers = 99;

__attribute__((constructor)) static void watchAtLoad(void) {
  FrameDeadloopHandle self = 0;
  early_answers = ZOT_SetHeartMon(&self, 1, 2, 3);
  early_answers |= ZOT_SendHeartToMon(&self);
  early_answers |= ZOT_StopHeartToMon(&self);
}
