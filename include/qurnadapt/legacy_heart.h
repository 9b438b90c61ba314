/* The legacy heart-monitor function set. */
#ifndef QURNADAPT_LEGACY_HEART_H
#define QURNADAPT_LEGACY_HEART_H

#include <qurnadapt/api.h>
#include <qurnadapt/monitor.h>

QURN_BEGIN_DECLS

typedef struct TovHeartFunSet {
  uint32_t (*pfnSetHeartMon)(FrameDeadloopHandle* handle, uint32_t firstThreshold,
                             uint32_t secondThreshold, uint32_t thirdThreshold);
  uint32_t (*pfnSendHeartToMon)(const FrameDeadloopHandle* handle);
  uint32_t (*pfnStopHeartToMon)(const FrameDeadloopHandle* handle);
  uint32_t (*pfnRegThreadDeadloopHook)(const FrameDeadloopHandle* handle,
                                       FrameDeadloopInfoHook hook);
  void (*pfnReboot)(void);
} TovHeartFunSet;

/* The operations behind the legacy heart calls, filled when the library is loaded. */
QURN_API extern TovHeartFunSet g_stTovHeartFunSet;

/* Replaces the whole set with a copy of funSet. Returns 0, or 0xFFFFFFFF with nothing changed when
 * funSet or one of its operations is null. Call it before other threads use the set. */
QURN_API uint32_t ZotHeartFunReg(const TovHeartFunSet* funSet);

QURN_END_DECLS

#endif
