/* Start-up of the maintenance subsystem and the detection thread's tick. */
#ifndef QURNADAPT_MAINTENANCE_H
#define QURNADAPT_MAINTENANCE_H

#include <qurnadapt/api.h>
#include <stdint.h>

QURN_BEGIN_DECLS

/* Capacity of a process name, terminator included. */
#define FRAME_PROC_NAME_LEN 32U

/* Starts the maintenance subsystem: process identity, exception and keep-alive configuration,
 * monitor, dead-loop capability, dead-loop signal, detection thread, in this order.
 * Returns 0, or the code of the first step that failed; what earlier steps did stays in force. It
 * returns before the detection thread has finished its own set-up, whose failures are only logged.
 * Call it once per process. A later call runs the steps again, and so retries after a failure, but
 * starts no second detection thread. A call while one runs on another thread waits for that and
 * returns its code; one from within a step (from a platform call that it makes) returns 0xFFFFFFFF.
 * The child of a fork is watched only once it calls this itself. Of the threads' registrations it
 * keeps the forking thread's, with the parent's thread id: a child that goes on working registers
 * again, or its slot is freed at its first threshold. Thread-safe; a cancellation of the calling
 * thread waits until it returns. */
QURN_API uint32_t FRAME_MntInit(void);

/* Fixes the detection period, in milliseconds from 1 up, before FRAME_MntInit; without this call
 * it is 10000. Returns 0, or 0xFFFFFFFF once the capture facility is initialised, when a period
 * has been set already, or for 0. Thread-safe; of several callers one wins. */
QURN_API uint32_t FrameSetDeadloopPeriodDelay(uint32_t value);

/* ---- Internal steps, exported for the framework's diagnostics ---- */

/* Stores the process id and, from the process's status file, up to 31 characters of its name, to
 * the first blank. A name that does not fit nameLen bytes with its terminator, or cannot be read,
 * leaves name as it was. With a null name or pid nothing is stored. Thread-safe. */
QURN_API void FrameGetProcInfo(uint32_t* pid, char* name, uint32_t nameLen);

/* Creates and detaches the detection thread unless it runs already. Returns 0 or 0xFFFFFFFF. */
QURN_API uint32_t FRAME_PeriodTaskInit(void);

/* Entry of the detection thread; arg is ignored. Returns null, and only when its set-up failed. */
QURN_API void* FrameDeadloopTaskProcEntry(void* arg);

/* The detection period in milliseconds; 0 until it has been set. Thread-safe. */
QURN_API uint32_t FrameChooseDeadloopDetectTime(void);

/* One detection tick; param is ignored. Returns 0. Detection thread only. */
QURN_API uint32_t FrameDeadloopDetectCallback(void* param);

/* Calls the plug-in's repair function about every ten seconds of ticks, if a plug-in offers
 * "RuloPluginCheckAndRepairDeadloop". Detection thread only. */
QURN_API void FrameRuloPluginCheckAndRepairDeadloop(void);

QURN_END_DECLS

#endif
