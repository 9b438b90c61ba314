/* Periodic timers on timer descriptors, served by an event set. */
#ifndef QURNADAPT_TIMER_H
#define QURNADAPT_TIMER_H

#include <qurnadapt/api.h>
#include <stdint.h>
#include <sys/epoll.h>
#include <time.h>

QURN_BEGIN_DECLS

/* A list of timers. It has no lock: use one control on one thread. */
typedef struct FrameTimerCtrl FrameTimerCtrl;

/* Runs at each expiry of a timer, on the thread that serves its control. The result is ignored. */
typedef uint32_t (*FrameTimerHook)(void* param);

/* Creates an empty control and stores it through ctrl; the caller owns it and ends it with
 * FRAME_TimerCtrlRuin. Returns 0, or 0xFFFFFFFF without memory, ctrl then untouched. */
QURN_API uint32_t FRAME_TimerCtrlInit(FrameTimerCtrl** ctrl);

/* Creates a timer that expires every periodMs milliseconds (1 or more; 0 would leave it disarmed),
 * armed at once, and stores its descriptor through fd so that the caller can add it to an event
 * loop. hook is required; hookParam stays the caller's. The descriptor belongs to the control.
 * Returns 0, or 0xFFFFFFFF with nothing created. */
QURN_API uint32_t FRAME_TimerCreate(FrameTimerCtrl* ctrl, uint32_t periodMs, FrameTimerHook hook,
                                    void* hookParam, int32_t* fd);

/* Closes and frees every timer of ctrl, then ctrl itself. */
QURN_API void FRAME_TimerCtrlRuin(FrameTimerCtrl* ctrl);

/* Whole milliseconds from start to end, truncated toward zero; negative when end is the earlier.
 * Exact for any two time stamps, but at most 2147483647 and at least -0x7FFFFFFFFFFFFFFF. Callable
 * from any thread and from a signal handler. */
QURN_API int64_t FRAME_GetTimespecDiff(const struct timespec* start, const struct timespec* end);

/* The event process function of a timer set: param is the set's FrameTimerCtrl. Returns 0. */
QURN_API uint32_t FrameTimerEventProc(struct epoll_event* event, void* param);

/* Handles one readiness of descriptor fd: runs the hook and drains the expiration count. */
QURN_API void FrameTimerHookTriggerByFd(FrameTimerCtrl* ctrl, int32_t fd);

QURN_END_DECLS

#endif
