/* What the host's platform owes this library. Nothing here is defined by it: every call is looked
 * up in the process, so a program or another library may provide any of them. Unless said
 * otherwise calls are thread-safe, and those that return a code return 0 for success. */
#ifndef QURNADAPT_PLATFORM_H
#define QURNADAPT_PLATFORM_H

#include <qurnadapt/api.h>
#include <qurnadapt/capture.h>
#include <qurnadapt/sdk_sections.h>
#include <qurnadapt/systime.h>
#include <stdarg.h>
#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

QURN_BEGIN_DECLS

/* ---- Framework log library ---- */

#define TOV_LOG_INFO 40U    /* Level of successes and notices. */
#define TOV_LOG_WARNING 80U /* Level of what is tolerated, and of dead-loop reports. */
#define TOV_LOG_ERROR 100U  /* Level of failed steps. */

/* One message: module id, source path and its length, function name and its length, source line,
 * level, printf-style text. Identical repeats may be dropped. Never allocates from a locked heap of
 * another thread on purpose, but is not async-signal-safe. */
void LOG_InnerPrint(uint32_t moduleId, const char* file, uint32_t fileLen, const char* func,
                    uint32_t funcLen, uint32_t line, uint32_t level, const char* format, ...)
    __attribute__((format(printf, 8, 9)));
/* The same, never dropped. */
void LOG_InnerPrintUnsuppress(uint32_t moduleId, const char* file, uint32_t fileLen,
                              const char* func, uint32_t funcLen, uint32_t line, uint32_t level,
                              const char* format, ...) __attribute__((format(printf, 8, 9)));
/* The argument-list form; kind is always 1 here, and file and func may be null with length 0. */
void LOG_InnerVprint(uint32_t moduleId, uint32_t kind, const char* file, uint32_t fileLen,
                     const char* func, uint32_t funcLen, uint32_t line, uint32_t level,
                     const char* format, va_list args) __attribute__((format(printf, 9, 0)));

/* ---- Framework core ---- */

#define CF_COMP_CFG 12U /* Parameter: path of the component configuration file. */

/* The text of a parameter, owned by the platform, or null when it is not set. */
const char* FrameParamGet(uint32_t id);
/* The framework's exit check, made at the end of every detection tick. */
uint32_t FrameTriggerCheckExit(void);

/* Memory, or null; file and line say who asked, and reserved is 0. Freed with TOV_MemFreeF. */
void* TOV_MemAllocF(size_t size, const char* file, uint32_t line, uint32_t reserved);
/* Frees a block of TOV_MemAllocF. */
void TOV_MemFreeF(void* block, const char* file, uint32_t line, uint32_t reserved);

/* A configuration file, or null when it cannot be read as YAML; freed with TovYamFreelHandle. A
 * handle is used by one thread at a time. Key paths are formatted printf-style. */
void* TovYamlLoadFile(const char* path);
/* Frees a configuration and every text that it owns. */
void TovYamFreelHandle(void* yaml);
/* Whether there is something at a key path, "." between keys. */
bool TovYamlIsKeyExist(void* yaml, const char* key);
/* The value text at a key path, owned by the handle; null when there is none. */
const char* TovYamlGetProperty(void* yaml, const char* format, ...)
    __attribute__((format(printf, 2, 3)));
/* The number of elements of the sequence at a key path; 0 when there is none. */
uint32_t TovYamlGetArraySize(void* yaml, const char* format, ...)
    __attribute__((format(printf, 2, 3)));
/* Converts a duration text, such as "60s", to milliseconds; non-zero when it is none. */
uint32_t TovStrToMilliSeconds(const char* text, uint32_t* milliseconds);

/* Key management. Their argument lists are the framework's own business: the library hands on what
 * it gets. */
uint32_t TovPluginKmsEncrypt(QURN_ANY_ARGUMENTS);
uint32_t TovPluginKmsDecrypt(QURN_ANY_ARGUMENTS);

/* ---- Framework dead-loop library ---- */

/* A framework hook for one thread: POSIX thread id, silence in milliseconds. */
typedef uint32_t (*TovDeadloopHook)(uint64_t threadId, uint32_t elapsedMs);
/* Receives the dead-loop library's own messages. */
typedef void (*TovDeadloopLogHook)(uint32_t level, const char* text);

/* The framework's hook of a thread, or null when it keeps none. */
TovDeadloopHook TovDeadloopGetHookByThreadId(uint64_t threadId);
/* Takes the operations of dead-loop sections, at each start-up; copies the record. */
uint32_t TOV_DeadLoopRegCapability(const FrameDeadloopCapability* capability);
/* Sets where the dead-loop library's messages go, at each start-up. */
uint32_t TOV_DeadloopLogHookSet(TovDeadloopLogHook hook);

/* ---- Legacy operating-system layer (KEM) ---- */

/* Registers a module by name and stores its handle id; gives the id back. */
uint32_t KEM_HandleInitialize(const char* name, uint32_t* handleId);
/* Ends a module's handle id. */
uint32_t KEM_HandleFinalize(uint32_t handleId);
/* A block charged to a handle and a partition, or null; file and line say who asked. Freed under
 * any handle id. */
void* KEM_MemAlloc_F(uint32_t handleId, uint8_t partition, uintptr_t size, const char* file,
                     uint32_t line);
/* Frees a block of KEM_MemAlloc_F. */
uint32_t KEM_MemFree_F(uint32_t handleId, void* block, const char* file, uint32_t line);

/* Receives each text that the KEM layer prints. */
typedef uint32_t (*KemPrintHook)(const char* text);
/* Receives each run-log text; a result of 1 takes it over. */
typedef uint32_t (*KemBoxRedirectHook)(void* box, const char* text);
/* Sets who receives what is printed. */
uint32_t KEM_HookPrint(KemPrintHook hook);
/* Prints up to count records of a box region from first on, through the print hook. */
uint32_t KEM_BoxextRecordShow(uint32_t region, uint32_t first, uint32_t count, uint32_t mask);
/* Empties a box region. */
uint32_t KEM_BoxextRegionClean(uint32_t region);
/* Sets who receives run-log texts. */
uint32_t KEM_BoxextRedirectHookReg(KemBoxRedirectHook hook);

/* Breaks seconds since 1970 down; every field but week and millSec is written. */
uint32_t KEM_SystimeSec2Time(uint32_t seconds, ZotSystime* time);
/* Writes the day of the week of the record's date. */
uint32_t KEM_SystimeWeekDayGet(ZotSystime* time);
/* A 64-bit count of nanoseconds since an arbitrary start, as two words. */
uint32_t KEM_GetCpuTick(uint32_t* low, uint32_t* high);
/* A tick count {low, high} in milliseconds. */
uint32_t KEM_CpuTick2Ms(const uint32_t tick[2], uint32_t* msHigh, uint32_t* msLow);
/* Adds (addHigh, addLow) to (*high, *low); non-zero on overflow. */
uint32_t KEM_64Add64(uint32_t addHigh, uint32_t addLow, uint32_t* high, uint32_t* low);
/* Subtracts (subHigh, subLow) from (*high, *low); non-zero on underflow. */
uint32_t KEM_64Sub64(uint32_t subHigh, uint32_t subLow, uint32_t* high, uint32_t* low);
/* Writes value in this radix, 2 to 16, with a terminator. Async-signal-safe. */
uint32_t KEM_Uint32ToStrEx(uint32_t value, char* text, uint32_t capacity, uint32_t radix);

/* A mutex is a 64-bit variable of the caller's, 0 while there is none. Each call returns 0, or
 * non-zero when it failed. */
uint32_t KEM_MutexInit(uint64_t* mutex);
uint32_t KEM_MutexDestroy(uint64_t* mutex);
uint32_t KEM_MutexLock(uint64_t* mutex);
uint32_t KEM_MutexUnlock(uint64_t* mutex);

/* Handles a captured signal; 1 means that it is dealt with. Runs in signal context. */
typedef uint32_t (*KemSigcapHandler)(uint32_t sigId, void* info, void* context);
/* Sets the handler of a signal, in place of an earlier one. */
uint32_t KEM_SigcapHandleReg(uint32_t sigId, KemSigcapHandler handler);

/* Stores up to maxDepth code addresses of the interrupted context (a ucontext_t), innermost first,
 * and their count. option is 0. Async-signal-safe: runs in a handler on the interrupted thread. */
uint32_t KEM_ExceptCallStackGetEx(void* context, uint32_t maxDepth, uint32_t option,
                                  uint64_t* addresses, uint32_t* depth);
/* The calling thread's stack, for selector 0; non-zero when it cannot tell. Async-signal-safe. */
uint32_t KEM_TaskStackInfoGet(uint32_t selector, FrameTaskStackInfo* info);

/* ---- Plug-in platform ---- */

/* A component's failed assertion at this place of its source; third is the component's own number.
 * ZOT_Assert is a jump to this call: arguments and result pass at pointer width, so a platform may
 * take and return more than is declared here. Thread-safe. */
uint32_t RuloPluginAssert(const char* file, uint32_t line, uint32_t third);

/* ---- Looked up at run time in the process's global symbol scope, present or not ----
 *
 *   int32_t bexlin_notify(int32_t what);                  the process guard: 0 heartbeat, 1 ready;
 *                                                         0 when delivered
 *   void RuloPluginCheckAndRepairDeadloop(void);          a plug-in's repair function
 */

QURN_END_DECLS

#endif
