/* Compiles only if the public headers are C11 with the POSIX types. */
#define _POSIX_C_SOURCE 200809L

#include <qurnadapt/platform.h>
#include <qurnadapt/qurnadapt.h>
#include <tovplatform/stand_in.h>

uint32_t useOfTheInterface(FrameDeadloopHandle* handle) {
  return Frame_SetHeartbeatToMon(handle, 1, 2, 3) | Frame_SendHeartbeatToMon(handle);
}
