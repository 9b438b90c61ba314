/* Legacy logging, exit, assertion, system log and environment. */
#ifndef QURNADAPT_LEGACY_PROCESS_H
#define QURNADAPT_LEGACY_PROCESS_H

#include <qurnadapt/api.h>
#include <stdint.h>

QURN_BEGIN_DECLS

/* Prints to the framework log at the information level. Thread-safe. */
QURN_API void ZotKemLogPrint(const char* format, ...) __attribute__((format(printf, 1, 2)));

/* The hook through which the KEM layer prints; logs text and returns 0. Thread-safe. */
QURN_API uint32_t ZotKemLogPrintHook(const char* text);

/* The hook to which the KEM layer hands run-log texts; logs text and returns 1. Thread-safe. */
QURN_API uint32_t ZotKemBoxRedirectHook(void* ignored, const char* text);

/* Shows and cleans the mistake box (region 3) and the exception box (region 4) of the KEM layer,
 * whose print output goes to the framework log from then on. Returns the result of the last
 * clean-up. */
QURN_API uint32_t ZotKemBoxRecordDump(void);

/* Installs the run-log hook. Returns 0, or 0xFFFFFFFF when the KEM layer refuses it. */
QURN_API uint32_t ZotKemRunLogFuncReg(void);

/* Installs the run-log hook and says so in the log. Returns 0 or 0xFFFFFFFF. */
QURN_API uint32_t ZotKemLogInit(void);

/* Dumps the KEM boxes, logs the exit and ends the process at once with this status: no exit
 * handlers run and no stream is flushed. Does not return. Callable from any thread. */
QURN_API void ZOT_Exit(int32_t code) __attribute__((noreturn));

/* Hands an assertion to the framework's RuloPluginAssert (file name, line, a number or pointer of
 * the component's own) and returns its result: every argument and the result whole, at pointer
 * width. Thread-safe if the framework's call is. */
QURN_API uintptr_t ZOT_Assert(QURN_ANY_ARGUMENTS);

/* Writes to the system log; priority as of syslog(3). Thread-safe. */
QURN_API void ZOT_syslog(int32_t priority, const char* format, ...)
    __attribute__((format(printf, 2, 3)));

/* A copy of an environment variable's value, which the caller frees with free(); null when name is
 * null, the variable is not set or memory is exhausted. Thread-safe against other callers. */
QURN_API char* ZOT_LocGetEnv(const char* name);

/* Stores the decimal value of an environment variable, 0 for text that is no number, two's
 * complement for a negative one. Returns 0, or 0xFFFFFFFF with out untouched when it is not set. */
QURN_API uint32_t ZotGetEnvUINT32(const char* name, uint32_t* out);

/* Stores the identifier that selector names: 0 "ZOT_DB_ID", 1 "ZOT_NODE_ID", 2 "ZOT_LR_ID",
 * 3 "ZOT_VR_ID". Returns 0, or 0xFFFFFFFF with out untouched for another selector, a null out, or a
 * variable that is not set. Thread-safe. */
QURN_API uint32_t ZOT_GetEnvValue(uint32_t selector, uint32_t* out);

QURN_END_DECLS

#endif
