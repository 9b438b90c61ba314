/* The smallest service: one watched thread, which gets stuck after three passes. */
#include <qurnadapt/qurnadapt.h>
#include <unistd.h>

int main(void) {
  FrameDeadloopHandle self;
  FrameSetDeadloopPeriodDelay(1000); /* look once a second */
  if (FRAME_MntInit() != 0 || Frame_SetHeartbeatToMon(&self, 2, 3, 4) != 0) return 1;
  for (int pass = 0; pass < 3; ++pass) {
    Frame_SendHeartbeatToMon(&self); /* once a pass of the loop */
    sleep(1);
  }
  for (;;) pause(); /* stuck: reported after four seconds, then the process ends with status 88 */
}
