/* The task dead-loop monitor: registration, heartbeats, hooks and the detection pass. */
#ifndef QURNADAPT_MONITOR_H
#define QURNADAPT_MONITOR_H

#include <qurnadapt/api.h>
#include <stdint.h>
#include <time.h>

QURN_BEGIN_DECLS

/* How many threads of a process can be monitored at once. */
#define FRAME_MONITOR_CAPACITY 64U
/* Capacity of a monitored thread's name, terminator included. */
#define FRAME_TASK_NAME_LEN 16U

/* A monitored thread's slot, 0 to 63, kept by that thread and passed by pointer. */
typedef uint64_t FrameDeadloopHandle;

/* A thread's own dead-loop hook, run once its dead-loop report is written; without one the process
 * ends with status 88. Gets a copy of the slot, the POSIX thread id and the silence in
 * milliseconds; its result is not read. Runs on the detection thread, under the event-set lock but
 * under no monitor lock: every monitor operation may be called, FRAME_MntRegSetAndEventProc may
 * not. A hook that throws or ends the thread ends the process. */
typedef uint32_t (*FrameDeadloopInfoHook)(FrameDeadloopHandle* handle, uint64_t threadId,
                                          uint32_t elapsedMs);

/* The process-wide hook of second-threshold events. Gets the POSIX thread id, the kernel thread id,
 * the silence in milliseconds and the thread's exception policy (0 or 1). Runs inside the detection
 * pass with the monitor's lock read-held and the thread's own lock held: it must not register or
 * stop a thread, set a process-wide hook, or operate on the thread that it is told about, but for
 * FRAME_UpdateDeadloopThresholdByName, which may tune any thread, that one included. */
typedef void (*FrameThreadDeadloopWarningHook)(uint64_t threadId, uint32_t tid, uint32_t elapsedMs,
                                               uint32_t exceptionPolicy);

/* The process-wide hook of third-threshold events, run after the thread's own hook, with the
 * arguments of the warning hook and the freedom of FrameDeadloopInfoHook. */
typedef void (*FrameThreadDeadloopHook)(uint64_t threadId, uint32_t tid, uint32_t elapsedMs,
                                        uint32_t exceptionPolicy);

/* Everything that describes one monitored thread; all zero while its slot is free. Thresholds and
 * times are in milliseconds. */
typedef struct FrameMonitorTaskInfo {
  uint8_t ucValid;                           /* 1 while a thread is registered here. */
  uint8_t ucDetectSwitch;                    /* 0 = its silence is not measured. */
  uint8_t ucTimeoutLevel;                    /* 0 to 3: the highest threshold reported. */
  uint32_t uiTid;                            /* Kernel thread id. */
  uint64_t ulThreadId;                       /* POSIX thread id of the owner. */
  uint32_t uiFirstThreshold;                 /* Information line. */
  uint32_t uiSecondThreshold;                /* Warning line and hook. */
  uint32_t uiThirdThreshold;                 /* Capture and report. */
  uint32_t uiExceptionPolicy;                /* 0 or 1, handed to the process-wide hooks. */
  FrameDeadloopInfoHook pfnDeadloopInfoHook; /* Its own hook; null when it has none. */
  struct timespec stDetectTime;         /* CLOCK_MONOTONIC_COARSE; the silence counts from here. */
  char acTaskName[FRAME_TASK_NAME_LEN]; /* As it was called when it registered. */
} FrameMonitorTaskInfo;

/* Registers the calling thread with three silence thresholds in seconds, each at least 1 and none
 * below the one before; 4294967 and above are kept as 4294967295 ms. Stores the slot through
 * handle. A thread that registers again keeps its slot, hook, policy and switch, and starts its
 * silence and its thresholds anew. Returns 0, 2 for a null handle or bad thresholds, 0xFFFFFFFF
 * when the monitor is not initialised or all 64 slots are taken. On success the calling thread's
 * signal mask lets SIGRTMIN + 2 through, so that the thread can be captured; no other signal
 * changes. Thread-safe; waits for a running pass. */
QURN_API uint32_t Frame_SetHeartbeatToMon(FrameDeadloopHandle* handle, uint32_t firstThreshold,
                                          uint32_t secondThreshold, uint32_t thirdThreshold);

/* The calling thread is alive: its silence starts anew. Returns 0, 2 for a bad handle or one of
 * another thread, 0xFFFFFFFF when the monitor is not initialised or the clock cannot be read.
 * Thread-safe; waits for a registration or stop in progress, and otherwise takes one mutex of the
 * thread's own and reads the clock once. */
QURN_API uint32_t Frame_SendHeartbeatToMon(const FrameDeadloopHandle* handle);

/* Ends the calling thread's registration; its variable is left as it is. Returns 0, 2 for a bad
 * handle, 0xFFFFFFFF when the monitor is not initialised or the slot is not the caller's.
 * Thread-safe. */
QURN_API uint32_t Frame_StopHeartbeatToMon(const FrameDeadloopHandle* handle);

/* Sets the hook of the thread in the slot, null to remove it; any thread may do so. Returns 0, 2
 * for a bad handle, 0xFFFFFFFF when the monitor is not initialised or the slot is free. The hook is
 * kept across a re-registration and dropped with the slot. Thread-safe. */
QURN_API uint32_t Frame_RegDeadloopInfoHook(const FrameDeadloopHandle* handle,
                                            FrameDeadloopInfoHook hook);

/* Removes the hook of the thread in the slot; otherwise as Frame_RegDeadloopInfoHook. */
QURN_API uint32_t Frame_UnRegDeadloopInfoHook(const FrameDeadloopHandle* handle);

/* Set the process-wide hooks of second- and third-threshold events, in place of earlier ones; null
 * removes them. Only a log line tells that the monitor is not initialised. Thread-safe; they wait
 * for a running pass and must not be called from the warning hook. */
QURN_API void Frame_RegThreadDeadloopWarningHook(FrameThreadDeadloopWarningHook hook);
QURN_API void Frame_RegThreadDeadloopHook(FrameThreadDeadloopHook hook);

/* Sets the exception policy, 0 or 1, that the process-wide hooks are told for the thread in the
 * slot (0 to 63); what it means is up to them. Returns 0, 2 for an argument out of range,
 * 0xFFFFFFFF when the monitor is not initialised or the slot is free. Thread-safe. */
QURN_API uint32_t Frame_SetHeartExceptionPolicy(uint64_t slot, uint32_t policy);

/* Gives the thread of this name new thresholds, as of Frame_SetHeartbeatToMon, and starts its
 * silence and its thresholds anew; of several threads of that name the one in the lowest slot. (An
 * empty name is that of a free slot, whose next thread sets thresholds of its own.)
 * Returns 0, 2 for a null name or bad thresholds, 0xFFFFFFFF when the monitor is not initialised,
 * no thread has the name or the clock cannot be read. Thread-safe; allowed in the warning hook. */
QURN_API uint32_t FRAME_UpdateDeadloopThresholdByName(const char* name, uint32_t firstThreshold,
                                                      uint32_t secondThreshold,
                                                      uint32_t thirdThreshold);

/* Switches the watch over the thread in the slot (0 to 63) off with 0 and on with any other value;
 * time spent in the old state does not count as silence. A switch that already is as asked changes
 * nothing. Returns 0, 2 for a slot out of range, 0xFFFFFFFF when the monitor is not initialised,
 * the slot is free or the clock cannot be read. Thread-safe. */
QURN_API uint32_t FrameSetDetectSwitch(uint64_t slot, uint8_t detectSwitch);

/* ---- Internal steps, exported for the framework's diagnostics ---- */

/* Initialises the monitor, once, and fills the legacy heart function set. Runs when the library is
 * loaded and again at start-up, where it puts the monitor's operations back. Returns 0 or
 * 0xFFFFFFFF.
 */
QURN_API uint32_t FRAME_TaskDeadloopInit(void);
/* Initialises the locks and the table, once. Returns 0 or 0xFFFFFFFF. */
QURN_API uint32_t FrameTaskDeadloopCtrlInit(void);
/* 1 if each threshold, in seconds, is at least 1 and none is below the one before, else 0. */
QURN_API uint32_t FrameIsDeadloopThresholdValid(uint32_t firstThreshold, uint32_t secondThreshold,
                                                uint32_t thirdThreshold);
/* 1 if the handle is not null and holds a slot, 0 to 63, else 0. */
QURN_API uint32_t FrameIsTaskDeadloopHandleValid(const FrameDeadloopHandle* handle);

/* Finds or takes a slot for the calling thread; the monitor's lock is write-held. */
QURN_API uint32_t FrameSetMonitorTaskInfo(FrameDeadloopHandle* handle, uint32_t firstThreshold,
                                          uint32_t secondThreshold, uint32_t thirdThreshold);
/* Fills a free slot (0 to 63); the monitor's lock is write-held. */
QURN_API uint32_t FrameAddMonitorTaskInfo(uint64_t slot, uint64_t threadId, uint32_t firstThreshold,
                                          uint32_t secondThreshold, uint32_t thirdThreshold);
/* Restarts a record's silence with new thresholds in seconds; its lock is held by the caller. */
QURN_API uint32_t FrameUpdateMonitorTaskKeyInfo(FrameMonitorTaskInfo* info, uint32_t firstThreshold,
                                                uint32_t secondThreshold, uint32_t thirdThreshold);
/* Frees the calling thread's slot (0 to 63); the monitor's lock is write-held. */
QURN_API uint32_t FrameRemoveMonitorTaskInfo(uint64_t slot);

/* One detection pass over all slots. Detection thread only. */
QURN_API void FRAME_TaskDeadloopMonitorEntry(void);
/* Milliseconds since the record's detect time, 0xFFFFFFFF when the clock cannot be read. */
QURN_API uint32_t FrameGetTaskElapsedTime(const FrameMonitorTaskInfo* info);
/* 1 when the thread has ended, its slot then freed, else 0. Its lock is held. A record of the
 * caller's own is cleared in the same way, and counts for nothing. */
QURN_API uint32_t FrameIsTerminatedTaskReleased(FrameMonitorTaskInfo* info);
/* 1 if the process has a thread of this kernel thread id, else 0. */
QURN_API uint32_t FrameIsMonitorTaskExist(int32_t tid);
/* The threshold rules: 1 if one fires for a record, else 0, and what it does. The record's lock is
 * held; detection thread only. They never look for the thread of a record that is not one of the
 * table's own, nor free it: the fatal action signals its POSIX thread id, which must be that of a
 * thread that still runs, or passes may stay suspended. */
QURN_API uint32_t FrameIsInfoThresholdTimeout(const FrameMonitorTaskInfo* info, uint32_t elapsedMs);
QURN_API uint32_t FrameIsWarnThresholdTimeout(const FrameMonitorTaskInfo* info, uint32_t elapsedMs);
QURN_API uint32_t FrameIsFatalThresholdTimeout(const FrameMonitorTaskInfo* info,
                                               uint32_t elapsedMs);
QURN_API void FrameInfoThresholdTimeoutAction(uint64_t slot, FrameMonitorTaskInfo* info,
                                              uint32_t elapsedMs);
QURN_API void FrameWarnThresholdTimeoutAction(uint64_t slot, FrameMonitorTaskInfo* info,
                                              uint32_t elapsedMs);
QURN_API void FrameFatalThresholdTimeoutAction(uint64_t slot, FrameMonitorTaskInfo* info,
                                               uint32_t elapsedMs);
/* Runs the hooks of the last third-threshold event, or ends the process with status 88 where the
 * thread has none. Detection thread only, after the report. */
QURN_API void FrameDeadloopFatalAction(void);

QURN_END_DECLS

#endif
