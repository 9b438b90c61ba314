/* Heartbeats to the process guard, and the calls that end the process. */
#ifndef QURNADAPT_KEEP_ALIVE_H
#define QURNADAPT_KEEP_ALIVE_H

#include <qurnadapt/api.h>
#include <stdint.h>

QURN_BEGIN_DECLS

/* Sends one heartbeat; param is what was registered with it. Returns 0 once delivered; any other
 * value is logged and the heartbeat is tried again at the next report, of which a tick makes one
 * for each thread that it measures. Runs on the detection thread with its locks held: it must be
 * short and call nothing of this library. */
typedef uint32_t (*FrameKeepAliveHook)(void* param);

/* 1 once readiness has been announced to the guard, or no guard could be found; heartbeats through
 * the guard are sent only then. Written by FrameKeepAliveByNotifySendReady. */
QURN_API extern uint32_t g_FrameReady;

/* Registers the process's keep-alive hook, before FRAME_MntInit to take the place of the configured
 * one. period is the least time between two heartbeats in milliseconds, to within 10, raised to the
 * detection period. hook is required; param stays the caller's. Returns 0, or 0xFFFFFFFF for a null
 * hook or when one is registered already: it cannot be replaced. Thread-safe. */
QURN_API uint32_t FRAME_KeepAliveProcSet(uint32_t period, FrameKeepAliveHook hook, void* param);

/* Sends a heartbeat if one is due. Detection thread only. */
QURN_API void FRAME_KeepAliveReport(void);

/* Announces to the guard that the component is ready. Returns 0 when announced, already announced,
 * not configured, or no guard was found; 0xFFFFFFFF when the guard refused, to be called again.
 * Thread-safe. */
QURN_API uint32_t FrameKeepAliveByNotifySendReady(void);

/* Logs the announcement of a reboot and ends the process with status 88. Does not return. Callable
 * from any thread. */
QURN_API void FRAME_NodeReboot(void) __attribute__((noreturn));
/* The step behind it. */
QURN_API void FrameNodeReboot(void) __attribute__((noreturn));

/* Ends the process with status 88. Does not return. Callable from any thread. */
QURN_API void FrameKeepAliveStop(void) __attribute__((noreturn));

/* ---- Internal steps ---- */

/* Applies the "watchDog" configuration. Returns 0, 0xFFFFFFFF or the duration parser's code. */
QURN_API uint32_t FrameKeepAliveInit(void);
/* Reads the "watchDog" keys of a loaded configuration, which stays the caller's. */
QURN_API uint32_t FrameKeepAliveParamInit(void* yaml);
/* The effective period in milliseconds: at least the detection period, and never shrinking. */
QURN_API uint32_t FrameGetKeepAlivePeriod(void);
/* Runs the registered hook: 0, 6 without one, 0xFFFFFFFF when it failed. */
QURN_API uint32_t FrameKeepAliveHookProc(void);
/* The hook of watch-dog type "notify"; param is ignored. */
QURN_API uint32_t FrameKeepAliveByNotify(void* param);

QURN_END_DECLS

#endif
