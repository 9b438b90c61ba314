/* The legacy heart-monitor calls and the function set behind them. */
#ifndef QURNADAPT_LEGACY_HEART_H
#define QURNADAPT_LEGACY_HEART_H

#include <qurnadapt/api.h>
#include <qurnadapt/monitor.h>
#include <stdint.h>

QURN_BEGIN_DECLS

/* One operation for each legacy heart call; each of the same type and results as that call. */
typedef struct TovHeartFunSet {
  /* ZOT_SetHeartMon */
  uint32_t (*pfnSetHeartMon)(FrameDeadloopHandle* handle, uint32_t firstThreshold,
                             uint32_t secondThreshold, uint32_t thirdThreshold);
  /* ZOT_SendHeartToMon */
  uint32_t (*pfnSendHeartToMon)(const FrameDeadloopHandle* handle);
  /* ZOT_StopHeartToMon */
  uint32_t (*pfnStopHeartToMon)(const FrameDeadloopHandle* handle);
  /* ZOT_RegThreadDeadloopHook */
  uint32_t (*pfnRegThreadDeadloopHook)(const FrameDeadloopHandle* handle,
                                       FrameDeadloopInfoHook hook);
  void (*pfnReboot)(void); /* ZotReboot */
} TovHeartFunSet;

/* The operations behind the legacy heart calls, filled when the library is loaded. */
QURN_API extern TovHeartFunSet g_stTovHeartFunSet;

/* Replaces the whole set with a copy of funSet. Returns 0, or 0xFFFFFFFF with nothing changed when
 * funSet or one of its operations is null. Call it before other threads use the set. */
QURN_API uint32_t ZotHeartFunReg(const TovHeartFunSet* funSet);

/* The monitor's calls under their legacy names: register the calling thread (and log its id), send
 * a heartbeat, stop, set the thread's dead-loop hook. They return what the operation behind them
 * returns (see monitor.h; the handle is the same), or 0xFFFFFFFF while the set is empty. */
QURN_API uint32_t ZOT_SetHeartMon(FrameDeadloopHandle* handle, uint32_t firstThreshold,
                                  uint32_t secondThreshold, uint32_t thirdThreshold);
QURN_API uint32_t ZOT_SendHeartToMon(const FrameDeadloopHandle* handle);
QURN_API uint32_t ZOT_StopHeartToMon(const FrameDeadloopHandle* handle);
QURN_API uint32_t ZOT_RegThreadDeadloopHook(const FrameDeadloopHandle* handle,
                                            FrameDeadloopInfoHook hook);

/* Ends the process with status 88 after announcing a reboot; does nothing while the set is empty.
 */
QURN_API void ZotReboot(void);

QURN_END_DECLS

#endif
