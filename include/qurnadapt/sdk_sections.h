/* SDK dead-loop sections: stretches of a thread's work during which alone it is watched. The
 * framework's dead-loop library drives them through a capability record, on the thread that owns
 * the section. */
#ifndef QURNADAPT_SDK_SECTIONS_H
#define QURNADAPT_SDK_SECTIONS_H

#include <qurnadapt/api.h>
#include <qurnadapt/monitor.h>
#include <stdint.h>

QURN_BEGIN_DECLS

#define FRAME_DEADLOOP_CAPABILITY 0x1FU /* All five operations, one bit each. */

/* What a section is registered with; thresholds in seconds. */
typedef struct FrameSdkDeadloopParam {
  uint32_t reserved;        /* The framework's own; not read. */
  uint32_t firstThreshold;  /* Information line. */
  uint32_t secondThreshold; /* Warning. */
  uint32_t thirdThreshold;  /* Dead loop. */
} FrameSdkDeadloopParam;

/* The five operations, as handed to TOV_DeadLoopRegCapability. The record is the library's and
 * valid during that call only; the operations stay valid. */
typedef struct FrameDeadloopCapability {
  uint32_t capability; /* FRAME_DEADLOOP_CAPABILITY */
  /* FrameRegSdkDeadloop */
  uint32_t (*registerOp)(const FrameSdkDeadloopParam* param, FrameDeadloopHandle* handle);
  void (*unregisterOp)(FrameDeadloopHandle handle);    /* FrameUnRegSdkDeadloop */
  void (*beginOp)(FrameDeadloopHandle handle);         /* FrameBeginSdkDeadloop */
  void (*endOp)(FrameDeadloopHandle handle);           /* FrameEndSdkDeadloop */
  uint32_t (*setActionOp)(FrameDeadloopHandle handle); /* FrameSetSdkDeadloopAction */
} FrameDeadloopCapability;

/* Registers the calling thread with the section's thresholds, its watch switched off, and stores
 * its slot through handle. Returns 0 or 0xFFFFFFFF; when only the switch failed the registration
 * stays. */
QURN_API uint32_t FrameRegSdkDeadloop(const FrameSdkDeadloopParam* param,
                                      FrameDeadloopHandle* handle);
/* Ends the calling thread's registration. A failure is only logged. */
QURN_API void FrameUnRegSdkDeadloop(FrameDeadloopHandle handle);
/* Open and close the section of the thread in the slot; repeating either changes nothing. A failure
 * is only logged. Thread-safe. */
QURN_API void FrameBeginSdkDeadloop(FrameDeadloopHandle handle);
QURN_API void FrameEndSdkDeadloop(FrameDeadloopHandle handle);
/* Makes FrameSdkDeadloopAction the hook of the thread in the slot. Returns as
 * Frame_RegDeadloopInfoHook. Thread-safe. */
QURN_API uint32_t FrameSetSdkDeadloopAction(FrameDeadloopHandle handle);

/* ---- Internal steps ---- */

/* Installs the log hook and hands the capability record to the framework's dead-loop library.
 * Returns 0, also when it is registered there already, or the framework's code. Part of start-up.
 */
QURN_API uint32_t FrameRegDeadloopCapability(void);
/* A section's own hook: hands the event to the framework's hook of that thread and returns its
 * result, or ends the process with status 88 where the framework keeps none. */
QURN_API uint32_t FrameSdkDeadloopAction(FrameDeadloopHandle* handle, uint64_t threadId,
                                         uint32_t elapsedMs);
/* Logs a text of the framework's dead-loop library: level 0 information, 1 warning, 2 error, any
 * other is dropped. Thread-safe. */
QURN_API void FrameDeadloopLogoutHook(uint32_t level, const char* text);

QURN_END_DECLS

#endif
