/* Registers, beats and stops, with nothing but what is installed. */
#include <qurnadapt/qurnadapt.h>
#include <stdio.h>

int main(void) {
  FrameDeadloopHandle self = 0;
  if (FRAME_MntInit() != 0 || Frame_SetHeartbeatToMon(&self, 1, 2, 3) != 0 ||
      Frame_SendHeartbeatToMon(&self) != 0 || Frame_StopHeartbeatToMon(&self) != 0) {
    return 1;
  }
  puts("outside: watched");
  return 0;
}
